#include "audit/LoneRecordCloser.h"

#include <gtest/gtest.h>

#include <string>

namespace vantor::audit
{
namespace
{

std::string Line(const std::string& type, unsigned long serial, const std::string& rest = "x=1")
{
    return "type=" + type + " msg=audit(1700000000.100:" + std::to_string(serial) + "): " + rest;
}

TEST(LoneRecordCloserTest, OnlyARecordWithoutItsCallGetsAnEndOfEvent)
{
    LoneRecordCloser closer;
    // The records of an audited call stay together; user messages, daemon
    // records and user-space anomalies end themselves; other lines pass.
    EXPECT_FALSE(closer.EndOfEventFor(Line("SYSCALL", 1)));
    for (const std::string& line :
         {Line("CWD", 1), Line("PATH", 1), Line("EXECVE", 1), Line("SOCKADDR", 1), Line("PROCTITLE", 1),
          Line("EOE", 1), Line("USER_CMD", 6), Line("DAEMON_START", 6), Line("ANOM_LOGIN_FAILURES", 6),
          Line("KERNEL", 6), Line("PROCTITLE", 6), Line("EOE", 6), Line("UNKNOWN[9999]", 6), std::string(),
          std::string("garbage"), std::string("type=PATH"), std::string("type=PATH msg=audit(1.2:3"),
          std::string("type= msg=audit(1.2:3): ")})
    {
        EXPECT_FALSE(closer.EndOfEventFor(line)) << line;
    }

    EXPECT_EQ(closer.EndOfEventFor(Line("CONFIG_CHANGE", 2)), "type=EOE msg=audit(1700000000.100:2): ");
    EXPECT_EQ(closer.EndOfEventFor(Line("EVENT_LISTENER", 3)), "type=EOE msg=audit(1700000000.100:3): ");
    // A core dump's record comes outside any call.
    EXPECT_TRUE(closer.EndOfEventFor(Line("ANOM_ABEND", 7)));
    // The same serial at another time is another event.
    EXPECT_FALSE(closer.EndOfEventFor(Line("SYSCALL", 4)));
    EXPECT_TRUE(closer.EndOfEventFor("type=PATH msg=audit(1700000001.100:4): item=0"));
    // auditd may name the node first.
    EXPECT_EQ(closer.EndOfEventFor("node=host type=AVC msg=audit(1.002:5): denied"),
              "type=EOE msg=audit(1.002:5): ");
}

TEST(LoneRecordCloserTest, OnlyRecentCallsAreRemembered)
{
    LoneRecordCloser closer;
    for (unsigned long serial = 10; serial < 10 + LoneRecordCloser::kRemembered + 1; ++serial)
    {
        closer.EndOfEventFor(Line("SYSCALL", serial));
    }
    EXPECT_TRUE(closer.EndOfEventFor(Line("PATH", 10))) << "the oldest is forgotten";
    EXPECT_FALSE(closer.EndOfEventFor(Line("PATH", 11)));
    EXPECT_FALSE(closer.EndOfEventFor(Line("PATH", 10 + LoneRecordCloser::kRemembered)));
}

} // namespace
} // namespace vantor::audit
