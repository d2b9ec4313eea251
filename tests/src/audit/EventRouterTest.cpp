#include "tests/src/audit/TestEvent.h"

#include "audit/EventRouter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace vantor::audit
{
namespace
{

using edr::EventRule;
using edr::EventType;
using test::MakeEvent;
using testing::ElementsAre;
using testing::IsEmpty;

class EventRouterTest : public testing::Test
{
protected:
    // The tags of the event, sorted; empty when it goes nowhere.
    std::vector<std::string> TagsOf(const edr::Event& event) const
    {
        const auto tags = m_router.GetTags(event);
        std::vector<std::string> sorted;
        if (tags)
        {
            EXPECT_FALSE(tags->empty()) << "no tags is answered as null";
            sorted.assign(tags->begin(), tags->end());
            std::sort(sorted.begin(), sorted.end());
        }
        return sorted;
    }

    std::vector<std::string> TagsOf(EventType type, const std::string& file = "/watched/file") const
    {
        auto event = MakeEvent(type, 1);
        event->file = file;
        return TagsOf(*event);
    }

    EventRouter m_router;
};

TEST_F(EventRouterTest, EventsGoToTheTagsOfTheirPathOrAction)
{
    m_router.AddRoute("files", {"fim", EventRule::DirectoryPathRule, {}, {"/watched"}});
    m_router.AddRoute("single", {"ioc", EventRule::FilePathRule, {}, {"/watched/file"}});
    m_router.AddRoute("processes", {"ioc", EventRule::ProcessRule, {9, 10}, {}});
    m_router.AddRoute("network", {"ioc", EventRule::NetworkRule, {12}, {}});

    EXPECT_THAT(TagsOf(EventType::Write), ElementsAre("fim", "ioc"));
    EXPECT_THAT(TagsOf(EventType::Delete, "/watched/other"), ElementsAre("fim"));
    EXPECT_THAT(TagsOf(EventType::Write, "/elsewhere/file"), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::Write, "relative/file"), IsEmpty());
    auto renamedIn = MakeEvent(EventType::Rename, 1);
    renamedIn->file = "/tmp/x";
    renamedIn->newFile = "/watched/x";
    EXPECT_THAT(TagsOf(*renamedIn), ElementsAre("fim"));

    EXPECT_THAT(TagsOf(EventType::Running), ElementsAre("ioc"));
    EXPECT_THAT(TagsOf(EventType::Clone), ElementsAre("ioc"));
    EXPECT_THAT(TagsOf(EventType::Exit), IsEmpty()); // no rule asked for exits
    EXPECT_THAT(TagsOf(EventType::AbnormalEnd), ElementsAre("ioc"));
    EXPECT_THAT(TagsOf(EventType::Connect), ElementsAre("ioc"));
    EXPECT_THAT(TagsOf(EventType::Bind), IsEmpty());

    EXPECT_EQ(m_router.GetPathTags("/watched/a/b"), (edr::Trie::Values{"fim"}));
    EXPECT_TRUE(m_router.RoutesPath("/watched/a/b"));
    EXPECT_FALSE(m_router.RoutesPath("/elsewhere/file"));
    EXPECT_FALSE(m_router.RoutesPath("watched/file")) << "a relative path goes nowhere";
    EXPECT_FALSE(m_router.RoutesPath(""));
    m_router.RemoveRoute("files");
    m_router.RemoveRoute("single");
    EXPECT_FALSE(m_router.RoutesPath("/watched/file"));
}

TEST_F(EventRouterTest, ARouteStaysUntilTheLastRuleGivingItIsGone)
{
    m_router.AddRoute("dir", {"fim", EventRule::DirectoryPathRule, {}, {"/watched"}});
    m_router.AddRoute("dir-again", {"fim", EventRule::DirectoryPathRule, {}, {"/watched", "/other"}});
    m_router.AddRoute("p1", {"ioc", EventRule::ProcessRule, {9}, {}});
    m_router.AddRoute("p2", {"edr", EventRule::ProcessRule, {9, 11}, {}});
    m_router.AddRoute("n1", {"ioc", EventRule::NetworkRule, {9}, {}}); // odd, but routes 9 too

    EXPECT_TRUE(m_router.RemoveRoute("dir"));
    EXPECT_THAT(TagsOf(EventType::Write), ElementsAre("fim"));
    EXPECT_TRUE(m_router.RemoveRoute("p1"));
    EXPECT_THAT(TagsOf(EventType::Running), ElementsAre("edr", "ioc"));
    EXPECT_THAT(TagsOf(EventType::AbnormalEnd), ElementsAre("edr"));
    EXPECT_TRUE(m_router.RemoveRoute("n1"));
    EXPECT_THAT(TagsOf(EventType::Running), ElementsAre("edr"));

    EXPECT_TRUE(m_router.RemoveRoute("dir-again"));
    EXPECT_THAT(TagsOf(EventType::Write), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::Write, "/other/file"), IsEmpty());
    EXPECT_FALSE(m_router.RemoveRoute("dir-again"));
    EXPECT_TRUE(m_router.RemoveRoute("p2"));
    EXPECT_THAT(TagsOf(EventType::Exit), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::AbnormalEnd), IsEmpty());
}

TEST_F(EventRouterTest, ARuleAddedAgainReplacesItsRoute)
{
    m_router.AddRoute("rule", {"fim", EventRule::FilePathRule, {}, {"/watched/file"}});
    m_router.AddRoute("rule", {"fim", EventRule::FilePathRule, {}, {"/moved/file"}});
    EXPECT_THAT(TagsOf(EventType::Write), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::Write, "/moved/file"), ElementsAre("fim"));

    m_router.AddRoute("rule", {"ioc", EventRule::NetworkRule, {13}, {}});
    EXPECT_THAT(TagsOf(EventType::Write, "/moved/file"), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::Bind), ElementsAre("ioc"));
    EXPECT_TRUE(m_router.RemoveRoute("rule"));
    EXPECT_THAT(TagsOf(EventType::Bind), IsEmpty());
}

TEST_F(EventRouterTest, BadRoutesAreRefusedAndChangeNothing)
{
    EXPECT_THROW(m_router.AddRoute("r", {"", EventRule::ProcessRule, {9}, {}}), std::invalid_argument);
    EXPECT_THROW(m_router.AddRoute("r", {"fim", EventRule::FilePathRule, {}, {"/watched/file", "relative"}}),
                 std::invalid_argument);
    EXPECT_THROW(m_router.AddRoute("r", {"fim", EventRule::DirectoryPathRule, {}, {""}}),
                 std::invalid_argument);
    EXPECT_THAT(TagsOf(EventType::Write), IsEmpty());
    EXPECT_THAT(TagsOf(EventType::Running), IsEmpty());
    EXPECT_FALSE(m_router.RemoveRoute("r"));
    // Actions do not make a path rule route by action.
    m_router.AddRoute("r", {"fim", EventRule::FilePathRule, {9}, {}});
    EXPECT_THAT(TagsOf(EventType::Running), IsEmpty());
}

} // namespace
} // namespace vantor::audit
