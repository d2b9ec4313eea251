#include "edr/daemon/ProcessTreeLookup.h"
#include "tests/src/audit/FakeProc.h"
#include "tests/src/audit/TestEvent.h"

#include "audit/ProcessTree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace vantor;
using ::testing::ElementsAre;

TEST(ProcessTreeLookupTest, ComponentsReadTheCaptureProcessTreeAsCopies)
{
    test::FakeProc proc;
    proc.AddProcess(800, 1, "/usr/bin/parent", 10, {"parent", "--serve"});
    proc.AddProcess(801, 800, "/usr/bin/child", 20, {"child", "-v"});
    auto tree = std::make_shared<audit::ProcessTree>(proc.Root());
    const edr::ProcessTreeLookup lookup(tree);
    EXPECT_FALSE(lookup.FindProcess(801)) << "not seen by the capture yet";
    EXPECT_TRUE(lookup.GetAncestors(801).empty());

    std::unique_ptr<edr::Event> event = test::MakeEvent(edr::EventType::Write, 801);
    audit::ProcessTree::Events pseudo;
    ASSERT_TRUE(tree->UpdateFromEvent(event, pseudo));

    const auto child = lookup.FindProcess(801);
    ASSERT_TRUE(child);
    EXPECT_EQ(child->pid, 801);
    EXPECT_EQ(child->parentPid, 800);
    EXPECT_EQ(child->image, "/usr/bin/child");
    EXPECT_THAT(child->arguments, ElementsAre("child", "-v"));
    EXPECT_EQ(child->uid, 1000u);
    EXPECT_EQ(child->euid, 1001u);
    EXPECT_EQ(child->auid, 1000u);

    const auto lineage = lookup.GetAncestors(801);
    ASSERT_EQ(lineage.size(), 2u);
    EXPECT_EQ(lineage[1].image, "/usr/bin/parent");
    EXPECT_THAT(lineage[1].arguments, ElementsAre("parent", "--serve"));

    EXPECT_THROW(edr::ProcessTreeLookup(nullptr), std::invalid_argument);
}
