#include "edr/LibMagicWrapper.h"
#include "edr/PseudoRunningEvent.h"
#include "edr/PseudoTerminateEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

namespace vantor::edr
{
namespace
{

TEST(PseudoEventTest, PseudoEventsCarryProcessDataAndCloneDeeply)
{
    PseudoRunningEvent::Process process;
    process.pid = 42;
    process.parentPid = 1;
    process.image = "/usr/bin/containerd";
    process.arguments = {"containerd", "--config", "x"};
    PseudoRunningEvent running(process);
    auto copy = running.Clone();
    running.UpdateActorProcessId(43);
    EXPECT_EQ(copy->GetActorProcessId(), 42);
    EXPECT_EQ(running.GetActorProcessId(), 43);
    EXPECT_EQ(copy->GetType(), EventType::Running);
    EXPECT_EQ(copy->GetActionName(), "Execve");
    EXPECT_EQ(copy->GetEventId(), 0U);
    EXPECT_EQ(copy->GetActorProcessArguments(), process.arguments);
    vantor::test::ExpectThrowText<EventException>([&] { copy->GetCommandLine(); },
                                                  "GetCommandLine is not implemented");
    vantor::test::ExpectThrowText<EventException>([&] { copy->GetFile(); }, "GetFile not implemented");

    PseudoTerminateEvent exit(EventType::Exit, 7, 1, "/bin/true", 1000);
    EXPECT_EQ(exit.GetActionName(), "Exit");
    EXPECT_EQ(exit.Clone()->GetActorProcessId(), 7);
}

TEST(PseudoEventTest, MagicWrapperDescribesFilesAndRejectsBadDatabase)
{
    LibMagicWrapper magic("/usr/share/misc/magic.mgc");
    vantor::test::TempDir dir;
    EXPECT_NE(magic.Describe(dir.Write("t.txt", "hello world\n")).find("text"), std::string::npos);
    EXPECT_EQ(magic.Describe(dir.Path()), "directory");
    EXPECT_THROW(LibMagicWrapper(dir.Path() + "/none.mgc"), std::runtime_error);
}

} // namespace
} // namespace vantor::edr
