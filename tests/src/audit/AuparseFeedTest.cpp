#include "common/Logging.h"
#include "tests/src/audit/RecordingEventBuilder.h"
#include "tests/support/LogCapture.h"

#include "audit/AuparseFeed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <ctime>
#include <map>
#include <optional>
#include <random>
#include <tuple>

namespace vantor::audit
{
namespace
{

using Class = AuditEventClass;

std::string Stamp(unsigned long serial, int seconds = 0)
{
    return "audit(" + std::to_string(1700000000 + seconds) + ".123:" + std::to_string(serial) + "): ";
}

// One complete audit event as the dispatcher writes it.
std::string SyscallEvent(unsigned long serial, long long syscall, const std::string& name = "/tmp/x",
                         int seconds = 0)
{
    const std::string stamp = Stamp(serial, seconds);
    return "type=SYSCALL msg=" + stamp + "arch=c000003e syscall=" + std::to_string(syscall) +
           " success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=1 ppid=1 pid=42 auid=1000 uid=0 gid=0 euid=0 "
           "suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=pts0 ses=3 comm=\"touch\" exe=\"/usr/bin/touch\" "
           "key=\"k\"\n"
           "type=CWD msg=" +
           stamp + "cwd=\"/tmp\"\ntype=PATH msg=" + stamp + "item=0 name=" + name +
           " inode=12 dev=08:01 mode=0100644 ouid=0 ogid=0 rdev=00:00 nametype=CREATE\n"
           "type=PROCTITLE msg=" +
           stamp + "proctitle=746F756368\ntype=EOE msg=" + stamp + "\n";
}

// The event without the named record and those after it.
std::string CutAt(std::string event, const std::string& record)
{
    event.erase(event.find("type=" + record + " "));
    return event;
}

AuparseFeed::Events Feed(AuparseFeed& feed, const std::string& text)
{
    return feed.Feed(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

std::vector<std::tuple<unsigned long, std::optional<Class>, std::vector<std::string>>>
Summary(const std::vector<test::BuiltEvent>& built)
{
    std::vector<std::tuple<unsigned long, std::optional<Class>, std::vector<std::string>>> summary;
    for (const auto& event : built)
    {
        summary.emplace_back(event.serial, event.eventClass, event.names);
    }
    return summary;
}

std::vector<test::BuiltEvent> FeedAll(const std::string& text, test::RecordingEventBuilder& builder,
                                      AuparseFeed::Tally* tally = nullptr)
{
    AuparseFeed feed(builder, tally);
    auto events = Feed(feed, text);
    auto rest = feed.Flush();
    EXPECT_EQ(events.size() + rest.size(), builder.Built().size()) << "every built event is handed out";
    return builder.Built();
}

class AuparseFeedTest : public testing::Test
{
protected:
    test::RecordingEventBuilder builder;
    AuparseFeed feed{builder};
};

TEST_F(AuparseFeedTest, SyscallNumbersSelectTheEventClass)
{
    const std::map<long long, Class> expected = {
        {0, Class::ReadWrite},   {1, Class::ReadWrite},   {2, Class::ReadWrite},   {17, Class::ReadWrite},
        {18, Class::ReadWrite},  {19, Class::ReadWrite},  {20, Class::ReadWrite},  {76, Class::ReadWrite},
        {77, Class::ReadWrite},  {257, Class::ReadWrite}, {295, Class::ReadWrite}, {296, Class::ReadWrite},
        {304, Class::ReadWrite}, {42, Class::Network},    {49, Class::Network},    {56, Class::Clone},
        {57, Class::Clone},      {58, Class::Clone},      {59, Class::Running},    {82, Class::Rename},
        {264, Class::Rename},    {316, Class::Rename},    {83, Class::Create},     {85, Class::Create},
        {86, Class::Create},     {88, Class::Create},     {133, Class::Create},    {258, Class::Create},
        {259, Class::Create},    {265, Class::Create},    {266, Class::Create},    {84, Class::Delete},
        {87, Class::Delete},     {263, Class::Delete},    {90, Class::Attribute},  {91, Class::Attribute},
        {92, Class::Attribute},  {93, Class::Attribute},  {94, Class::Attribute},  {132, Class::Attribute},
        {188, Class::Attribute}, {189, Class::Attribute}, {190, Class::Attribute}, {197, Class::Attribute},
        {198, Class::Attribute}, {199, Class::Attribute}, {235, Class::Attribute}, {260, Class::Attribute},
        {261, Class::Attribute}, {268, Class::Attribute}, {280, Class::Attribute}, {231, Class::Exit}};

    // One event per number, the serial telling the number; accept (43),
    // execveat (322) and everything else must yield nothing.
    std::string text;
    for (long long number = 0; number <= 400; ++number)
    {
        text += SyscallEvent(static_cast<unsigned long>(number + 1000), number);
    }
    test::LogCapture log(common::Logging::Edr());
    const auto built = FeedAll(text, builder);

    std::map<long long, Class> got;
    for (const auto& event : built)
    {
        ASSERT_TRUE(event.eventClass.has_value());
        got[static_cast<long long>(event.serial) - 1000] = *event.eventClass;
    }
    EXPECT_EQ(got, expected);
    EXPECT_TRUE(log.Contains("Unsupported syscall in event: 43"));
    EXPECT_TRUE(log.Contains("Unsupported syscall in event: 322"));
    EXPECT_TRUE(log.Contains("Unsupported syscall in event: 317"));
}

TEST_F(AuparseFeedTest, AbendEofOnlyOtherTypesAndRejectedEvents)
{
    const std::string abend =
        "type=ANOM_ABEND msg=" + Stamp(7) +
        "auid=1000 uid=1000 gid=1000 ses=2 pid=99 comm=\"crash\" exe=\"/usr/bin/crash\" "
        "sig=11 res=1\ntype=EOE msg=" +
        Stamp(7) + "\n";
    const std::string eoeOnly = "type=EOE msg=" + Stamp(8) + "\n";
    const std::string user = "type=USER_CMD msg=" + Stamp(9) + "pid=1 uid=0 msg='cmd=6C73'\n";
    const std::string negative = SyscallEvent(10, -1);
    const std::string notANumber = SyscallEvent(11, 0);

    builder.RejectSerial(12);
    builder.RejectSerial(14);
    std::string failedCall = SyscallEvent(14, 59);
    failedCall.replace(failedCall.find("success=yes exit=0"), 18, "success=no exit=-2");
    test::LogCapture log(common::Logging::Edr());
    test::LogCapture events(common::Logging::Events());
    std::string garbledSyscall = notANumber;
    garbledSyscall.replace(garbledSyscall.find("syscall=0"), 9, "syscall=0x");
    AuparseFeed::Tally tally;
    const auto built = FeedAll(abend + eoeOnly + user + negative + garbledSyscall + SyscallEvent(12, 87) +
                                   SyscallEvent(13, 87) + failedCall,
                               builder, &tally);

    ASSERT_EQ(built.size(), 2u);
    EXPECT_FALSE(built[0].eventClass.has_value());
    EXPECT_EQ(built[0].serial, 7u);
    EXPECT_EQ(built[1].eventClass, Class::Delete);
    EXPECT_EQ(built[1].serial, 13u) << "a rejected event does not stop the next one";

    EXPECT_EQ(log.Count("ID: 8") + events.Count("event: 8"), 0u) << "an EOE-only event is silent";
    EXPECT_TRUE(events.Contains("Received complete event: 7"));
    EXPECT_TRUE(log.Contains("Ignoring event with ID: 9 record type: " + std::to_string(AUDIT_USER_CMD)));
    EXPECT_TRUE(log.Contains("Unsupported syscall in event: -1"));
    EXPECT_TRUE(log.Contains("Unsupported syscall in event: 0x"));
    EXPECT_TRUE(log.Contains("Dropping audit event with ID: 12: Rejected by the test builder"));
    // Each event left out is counted once, under its reason.
    EXPECT_EQ(tally.otherRecords.load(), 1u);
    EXPECT_EQ(tally.unsupportedSyscalls.load(), 2u);
    EXPECT_EQ(tally.malformedEvents.load(), 1u);
    // A refused event of a failed call (an execve of a file that is not
    // there names none) is no sign of bad input.
    EXPECT_TRUE(log.Contains("Dropping audit event with ID: 14: Rejected by the test builder"));
    EXPECT_EQ(tally.failedCalls.load(), 1u);
}

TEST_F(AuparseFeedTest, RecordsSplitAnywhereStillAssemble)
{
    const std::string text = SyscallEvent(1, 85, "\"/tmp/a\"") + SyscallEvent(2, 87, "2F746D702F62") +
                             SyscallEvent(3, 90, "\"/tmp/c d\"");
    test::RecordingEventBuilder whole;
    const auto expected = FeedAll(text, whole);
    ASSERT_EQ(expected.size(), 3u);
    ASSERT_EQ(expected[1].names, std::vector<std::string>{"2F746D702F62"});

    for (size_t cut = 0; cut <= text.size(); ++cut)
    {
        test::RecordingEventBuilder split;
        AuparseFeed splitFeed(split);
        Feed(splitFeed, text.substr(0, cut));
        Feed(splitFeed, text.substr(cut));
        splitFeed.Flush();
        ASSERT_EQ(Summary(split.Built()), Summary(expected)) << "cut at " << cut;
    }
    for (const char c : text)
    {
        Feed(feed, std::string(1, c));
    }
    feed.Flush();
    EXPECT_EQ(Summary(builder.Built()), Summary(expected)) << "byte by byte";
}

TEST_F(AuparseFeedTest, EventsCompleteAtEndOfEventOrAtTheNextEventOrFlush)
{
    const auto now = Feed(feed, SyscallEvent(20, 83));
    ASSERT_EQ(now.size(), 1u) << "complete with its EOE record, not only when more text arrives";
    EXPECT_EQ(now[0]->GetEventId(), 20u);

    // With the EOE records excluded (the rule engine does) and no PROCTITLE
    // record, an event ends when later records show that it has aged, the
    // last one when the feed is flushed.
    const auto first = Feed(feed, CutAt(SyscallEvent(21, 83, "/tmp/x", 0), "PROCTITLE") +
                                      CutAt(SyscallEvent(22, 83, "/tmp/x", 10), "PROCTITLE"));
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0]->GetEventId(), 21u);
    const auto rest = feed.Flush();
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0]->GetEventId(), 22u);
}

TEST_F(AuparseFeedTest, ALoneRecordHoldsNothingBack)
{
    // What joining the multicast group while audit is on, or a rule change
    // by a process whose calls are not audited, sends: one record of the
    // system-call range with neither PROCTITLE nor EOE behind it.
    const std::string lone = "type=EVENT_LISTENER msg=" + Stamp(60) +
                             "pid=7 uid=0 auid=4294967295 tty=(none) ses=4294967295 comm=\"corvid-edr\" "
                             "exe=\"/usr/bin/corvid-edr\" nl-mcgrp=1 op=connect res=1\n";
    // A call that logs a record while it runs, before its SYSCALL record.
    const std::string logging = "type=CONFIG_CHANGE msg=" + Stamp(62) +
                                "auid=0 ses=1 op=add_rule key=\"k\" res=1\n" +
                                CutAt(SyscallEvent(62, 85), "EOE");
    const auto now = Feed(feed, lone + CutAt(SyscallEvent(61, 83), "EOE") + logging);
    ASSERT_EQ(now.size(), 2u) << "at once, not when a much newer record comes";
    EXPECT_EQ(now[0]->GetEventId(), 61u);
    EXPECT_EQ(now[1]->GetEventId(), 62u);
    ASSERT_EQ(builder.Built().size(), 2u);
    EXPECT_EQ(builder.Built()[1].eventClass, Class::Create) << "built from its SYSCALL record";
    EXPECT_EQ(builder.Built()[1].names, std::vector<std::string>{"/tmp/x"});
    EXPECT_TRUE(feed.Flush().empty());
}

TEST_F(AuparseFeedTest, AnEventWithoutItsEndHoldsNothingBackAndIsAged)
{
    // The kernel cut the event short (no PROCTITLE, no EOE); the next one
    // is complete and goes on at once.
    const auto now =
        Feed(feed, CutAt(SyscallEvent(63, 83), "PROCTITLE") + CutAt(SyscallEvent(64, 83), "EOE"));
    ASSERT_EQ(now.size(), 1u);
    EXPECT_EQ(now[0]->GetEventId(), 64u);
    // The records are from 2023: long past the age at which libauparse
    // gives up waiting.
    const auto aged = feed.Age();
    ASSERT_EQ(aged.size(), 1u);
    EXPECT_EQ(aged[0]->GetEventId(), 63u);
    EXPECT_EQ(builder.Built()[1].names, std::vector<std::string>{"/tmp/x"}) << "with all its records";

    // Records of now are not aged before their time.
    test::RecordingEventBuilder fresh;
    AuparseFeed recent(fresh);
    Feed(recent, CutAt(SyscallEvent(70, 83, "/tmp/x", static_cast<int>(std::time(nullptr) - 1700000000)),
                       "PROCTITLE"));
    EXPECT_TRUE(recent.Age().empty());
    EXPECT_EQ(recent.Flush().size(), 1u);
}

TEST_F(AuparseFeedTest, HostileInputNeverCrashesAndParsingRecovers)
{
    const std::string event = SyscallEvent(50, 85);
    std::vector<std::string> hostile = {
        event.substr(0, event.size() / 2) + "\n", // truncated record
        "type=SYSCALL msg=audit(\n",
        "type=SYSCALL msg=audit(1700000000.1:): syscall=\n",
        "type= msg=\n=\n==\ntype=PATH\n",
        "type=SYSCALL msg=audit(99999999999999999999.999:99999999999999999999): syscall=83\n",
        std::string("type=PATH msg=") + Stamp(51) + "name=\"\xff\xfe\xc3\x28/bad\" inode=1 dev=00:00\n",
        SyscallEvent(52, 83, "\"\xc0\xaf\xed\xa0\x80\"") + "type=EOE msg=" + Stamp(52) + "\n",
        SyscallEvent(53, 83, std::string(300000, 'A')),
        std::string("\0\0\0type=SYSCALL\0msg=\n", 21),
    };
    std::mt19937 random(1234);
    for (int i = 0; i < 200; ++i)
    {
        std::string junk(random() % 2000, '\0');
        for (char& c : junk)
        {
            c = static_cast<char>(random());
        }
        hostile.push_back(junk);
    }
    for (const auto& text : hostile)
    {
        Feed(feed, text);
    }
    Feed(feed, "\n");
    feed.Flush();

    // A line with no end is cut off at the bound instead of growing.
    test::LogCapture log(common::Logging::Edr());
    const std::string longLine(AuparseFeed::kMaxLineLength / 4, 'x');
    for (int i = 0; i < 8; ++i)
    {
        Feed(feed, longLine);
    }
    EXPECT_EQ(log.Count("Dropping an audit text line longer than"), 1u);
    EXPECT_EQ(feed.GetTally().overlongLines.load(), 1u);

    builder.Clear();
    Feed(feed, "\n" + SyscallEvent(60, 84));
    feed.Flush();
    ASSERT_EQ(builder.Built().size(), 1u) << "parsing recovers after the junk";
    EXPECT_EQ(builder.Built()[0].serial, 60u);
    EXPECT_EQ(builder.Built()[0].eventClass, Class::Delete);
}

} // namespace
} // namespace vantor::audit
