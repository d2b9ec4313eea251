// This file replaces the global operator new to count allocations; GCC
// takes the replaced pair for a mismatch where it inlines them.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include "tests/src/audit/AuditFixture.h"

#include "audit/RecordRegrouper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

// Counts the allocations of this test binary, so that the steady state of
// the regrouper can be shown to need none.
namespace
{
std::atomic<uint64_t> g_allocations{0};
}

void* operator new(size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* block = std::malloc(size == 0 ? 1 : size))
    {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept
{
    std::free(block);
}
void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}

namespace vantor::audit
{
namespace
{

struct Handed
{
    std::string records;
    bool endsItself;
    // The values set aside, as "cwd=<raw>|proctitle=<raw>" for those there were.
    std::string aside = "";
    bool operator==(const Handed&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Handed& handed)
{
    return out << (handed.endsItself ? "[ends] " : "[cut] ") << handed.records << "[aside] " << handed.aside;
}

std::string AsideText(const SetAsideRecords& aside)
{
    std::string text = aside.cwd ? "cwd=" + std::string(*aside.cwd) : "";
    if (aside.proctitle)
    {
        text += (text.empty() ? "" : "|") + ("proctitle=" + std::string(*aside.proctitle));
    }
    return text;
}

std::string Line(const std::string& type, unsigned long serial, int seconds = 0,
                 const std::string& rest = "x=1")
{
    return "type=" + type + " msg=audit(" + std::to_string(1700000000 + seconds) +
           ".100:" + std::to_string(serial) + "): " + rest + "\n";
}

struct Recorder
{
    std::vector<Handed> handed;
    RecordRegrouper regrouper{[this](std::string_view records, const SetAsideRecords& aside, bool endsItself)
                              {
                                  handed.push_back({std::string(records), endsItself, AsideText(aside)});
                              }};

    void Add(const std::vector<std::string>& lines)
    {
        for (const auto& line : lines)
        {
            regrouper.Add(line);
        }
    }
};

TEST(RecordRegrouperTest, EventsAreHandedOnWholeWhenLibauparseWouldEndThem)
{
    const std::string s1 = Line("SYSCALL", 1), c1 = Line("CWD", 1), p1 = Line("PROCTITLE", 1);
    const std::string s2 = Line("SYSCALL", 2), e2 = Line("EOE", 2);
    const std::string late = Line("SYSCALL", 3), fresh = Line("SYSCALL", 4, 2);
    struct Case
    {
        const char* name;
        std::vector<std::string> lines;
        std::vector<Handed> expected;
        size_t pending;
    };
    const std::vector<Case> cases = {
        {"interleaved calls, each ended by its PROCTITLE or EOE",
         {s1, s2, c1, e2, p1},
         {{s2 + e2, true}, {s1 + c1 + p1, true}},
         0},
        {"records that end themselves, alone",
         {Line("USER_CMD", 5), Line("EOE", 6), Line("KERNEL", 7), Line("UNKNOWN[9999]", 8)},
         {{Line("USER_CMD", 5), true},
          {Line("EOE", 6), true},
          {Line("KERNEL", 7), true},
          {Line("UNKNOWN[9999]", 8), true}},
         0},
        {"a record that no call started is cut at once; its call starts the event",
         {Line("CONFIG_CHANGE", 9), Line("ANOM_ABEND", 10), Line("SYSCALL", 9), Line("PROCTITLE", 9)},
         {{Line("CONFIG_CHANGE", 9), false},
          {Line("ANOM_ABEND", 10), false},
          {Line("SYSCALL", 9) + Line("PROCTITLE", 9), true}},
         0},
        {"a record two seconds newer cuts an event; a late record is then alone",
         {late, Line("SYSCALL", 5, 1), fresh, Line("PATH", 3)},
         {{late, false}, {Line("PATH", 3), false}},
         2},
        {"the same serial at another time or on another node is another event",
         {s1, Line("PATH", 1, 1), "node=a " + Line("PATH", 1), p1},
         {{Line("PATH", 1, 1), false}, {"node=a " + Line("PATH", 1), false}, {s1 + p1, true}},
         0},
        {"lines without a readable stamp go on as they are",
         {"type=PATH msg=audit(1.2:3", "type=SYSCALL msg=audit(x.1:2): a", "type=PATH msg=audit(1.2:)\n"},
         {{"type=PATH msg=audit(1.2:3\n", false},
          {"type=SYSCALL msg=audit(x.1:2): a\n", false},
          {"type=PATH msg=audit(1.2:)\n", false}},
         0},
    };
    for (const auto& c : cases)
    {
        Recorder recorder;
        recorder.Add(c.lines);
        EXPECT_EQ(recorder.handed, c.expected) << c.name;
        EXPECT_EQ(recorder.regrouper.PendingEvents(), c.pending) << c.name;
    }
}

TEST(RecordRegrouperTest, ACallsRecordsLoseWhatNoBuilderReads)
{
    const std::string syscall =
        "arch=c000003e syscall=257 success=yes exit=3 a0=ffffff9c a1=55d0 a2=241 a3=1a4 items=1 ppid=5 pid=6 "
        "auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=(none) ses=4 "
        "comm=\"cat\" exe=\"/usr/bin/cat\" key=(null)";
    const std::string syscallRead = "syscall=257 success=yes exit=3 a2=241 items=1 ppid=5 pid=6 "
                                    "auid=4294967295 uid=0 euid=0 comm=\"cat\" "
                                    "exe=\"/usr/bin/cat\"";
    const std::string path =
        "item=0 name=\"/etc/passwd\" inode=7 dev=fe:00 mode=0100644 ouid=0 ogid=0 rdev=00:00 "
        "nametype=NORMAL cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0";
    const std::string pathRead = "item=0 name=\"/etc/passwd\" inode=7 dev=fe:00 mode=0100644 nametype=NORMAL";
    struct Case
    {
        const char* name;
        std::vector<std::string> lines;
        Handed expected;
    };
    const auto as = [](const std::string& rest) { return Line("SYSCALL", 1, 0, rest); };
    const std::vector<Case> cases = {
        {"unread fields and records are left out, other records kept whole, one-field ones set aside",
         {Line("SYSCALL", 1, 0, syscall), Line("BPRM_FCAPS", 1, 0, "fver=0 fp=0"), Line("AVC", 1),
          Line("EXECVE", 1, 0, "argc=2 a0=\"ls\" a1_len=3 a1[0]=2D"), Line("CWD", 1, 0, "cwd=\"/\""),
          Line("PATH", 1, 0, path), Line("PROCTITLE", 1, 0, "proctitle=6C73")},
         {Line("SYSCALL", 1, 0, syscallRead + " " + pathRead) +
              Line("EXECVE", 1, 0, "argc=2 a0=\"ls\" a1_len=3 a1[0]=2D"),
          false, "cwd=\"/\"|proctitle=6C73"}},
        {"paths join the call's line in their order until one has to stay a line of its own",
         {as("pid=6"), Line("PATH", 1, 0, "item=0 name=\"/a\" rdev=0"),
          Line("PATH", 1, 0, "item=1 name=(null)"), Line("PATH", 1, 0, "name=\"/c\" item=2"),
          Line("PATH", 1, 0, "item=3 name=\"/e\""), Line("EOE", 1, 0, "")},
         {as("pid=6 item=0 name=\"/a\" item=1 name=(null)") + Line("PATH", 1, 0, "name=\"/c\" item=2") +
              Line("PATH", 1, 0, "item=3 name=\"/e\"") + Line("EOE", 1, 0, ""),
          true}},
        {"none joins a call's line that was kept as it came",
         {as("pid=6 comm=\"a b\""), Line("PATH", 1, 0, "item=0 name=\"/a\" rdev=0"), Line("EOE", 1, 0, "")},
         {as("pid=6 comm=\"a b\"") + Line("PATH", 1, 0, "item=0 name=\"/a\"") + Line("EOE", 1, 0, ""), true}},
        {"the arguments a call reads, all of them before its number or after an odd one",
         {as("syscall=56 a0=11 a1=0 a2=0 a3=0 pid=6"), as("syscall=263 a0=3 a1=4 a2=0 a3=0 pid=6"),
          as("a0=1 a1=2 a2=3 a3=4 syscall=263 pid=6"), as("syscall=263x a0=1 a1=2 a2=3 a3=4 pid=6"),
          Line("EOE", 1, 0, "")},
         {as("syscall=56 a0=11 pid=6") + as("syscall=263 pid=6") +
              as("a0=1 a1=2 a2=3 a3=4 syscall=263 pid=6") + as("syscall=263x a0=1 a1=2 a2=3 a3=4 pid=6") +
              Line("EOE", 1, 0, ""),
          true}},
        {"on another node; a field read twice is kept twice",
         {"node=h " + Line("SYSCALL", 1, 0, "gid=0 pid=6 exe=\"/a\" exe=\"/b\""),
          "node=h " + Line("EOE", 1, 0, "")},
         {"node=h " + Line("SYSCALL", 1, 0, "pid=6 exe=\"/a\" exe=\"/b\"") + "node=h " +
              Line("EOE", 1, 0, ""),
          true}},
    };
    for (const auto& c : cases)
    {
        Recorder recorder;
        recorder.Add(c.lines);
        EXPECT_EQ(recorder.handed, (std::vector<Handed>{c.expected})) << c.name;
    }

    // Not as the kernel writes it: kept whole, so libauparse splits it as before.
    for (const std::string& odd :
         std::vector<std::string>{"pid=6 comm=\"a b\" gid=0", "pid=6  gid=0", "pid=6 gid=0 ", "pid=6 gid",
                                  "pid=6 g\"id=0\"", "pid=6 (gid=0", "pid=6 gid=\"0", "pid=6 gid=0\"\"",
                                  "pid=6 msg='gid=0'", "gid=0 key=x", std::string("pid=6 gid=0\0pid=7", 17)})
    {
        Recorder recorder;
        recorder.Add({as(odd), Line("PROCTITLE", 1)});
        EXPECT_EQ(recorder.handed, (std::vector<Handed>{{as(odd) + Line("PROCTITLE", 1), true}})) << odd;
    }
}

TEST(RecordRegrouperTest, OnlyOneFieldRecordsWrittenAsTheKernelWritesThemAreSetAside)
{
    const std::string call = Line("SYSCALL", 1, 0, "pid=6");
    const auto cwd = [](const std::string& rest) { return Line("CWD", 1, 0, rest); };
    const auto title = [](const std::string& rest) { return Line("PROCTITLE", 1, 0, rest); };
    struct Case
    {
        const char* name;
        std::vector<std::string> lines;
        Handed expected;
    };
    const std::vector<Case> cases = {
        {"hex values, and the first CWD only",
         {call, cwd("cwd=2F612062"), cwd("cwd=\"/b\""), title("proctitle=6C7300")},
         {call + cwd("cwd=\"/b\""), false, "cwd=2F612062|proctitle=6C7300"}},
        {"a first CWD kept keeps the later ones too",
         {call, cwd("cwd=\"/a\" x=1"), cwd("cwd=\"/b\""), title("proctitle=\"ls\"")},
         {call + cwd("cwd=\"/a\" x=1") + cwd("cwd=\"/b\""), false, "proctitle=\"ls\""}},
        {"a CWD value that needs libauparse to decode stays",
         {call, cwd("cwd=(null)"), title("proctitle=(null)")},
         {call + cwd("cwd=(null)"), false, "proctitle=(null)"}},
        {"a PROCTITLE not as the kernel writes it stays and ends the event",
         {call, cwd("cwd=abc"), title("proctitle=\"a b\"")},
         {call + cwd("cwd=abc") + title("proctitle=\"a b\""), true}},
        {"nor does an unclosed quote",
         {call, title("proctitle=\"ls")},
         {call + title("proctitle=\"ls"), true}},
    };
    for (const auto& c : cases)
    {
        Recorder recorder;
        recorder.Add(c.lines);
        EXPECT_EQ(recorder.handed, (std::vector<Handed>{c.expected})) << c.name;
    }
    // A record of another name, more fields, odd quoting or bytes stays.
    for (const std::string& odd : std::vector<std::string>{"cwdx=\"/\"", "cwd=\"/\" cwd=\"/\"", "cwd=\"/",
                                                           "cwd=\"/\"\"", "cwd=\"/a'\"", "cwd=", "cwd=\"/\" ",
                                                           " cwd=\"/\"", std::string("cwd=\"/\0\"", 8)})
    {
        Recorder recorder;
        recorder.Add({call, cwd(odd), title("x=1")});
        EXPECT_EQ(recorder.handed, (std::vector<Handed>{{call + cwd(odd) + title("x=1"), true}})) << odd;
    }
}

TEST(RecordRegrouperTest, AgeAndFlushCutWhatIsHeldInTimeOrder)
{
    Recorder recorder;
    recorder.Add({Line("SYSCALL", 21, 5), Line("SYSCALL", 20, 5), Line("SYSCALL", 22, 6)});
    recorder.regrouper.Age(1700000000 + 6);
    EXPECT_TRUE(recorder.handed.empty()) << "not two seconds old yet";
    recorder.regrouper.Age(1700000000 + 7);
    EXPECT_EQ(recorder.handed,
              (std::vector<Handed>{{Line("SYSCALL", 20, 5), false}, {Line("SYSCALL", 21, 5), false}}));
    recorder.Add({Line("SYSCALL", 23, 6)});
    recorder.handed.clear();
    recorder.regrouper.Flush();
    EXPECT_EQ(recorder.handed,
              (std::vector<Handed>{{Line("SYSCALL", 22, 6), false}, {Line("SYSCALL", 23, 6), false}}));
    EXPECT_EQ(recorder.regrouper.PendingEvents(), 0u);

    // Beyond the bound the oldest goes.
    for (unsigned long serial = 100; serial < 100 + RecordRegrouper::kMaxPending + 1; ++serial)
    {
        recorder.regrouper.Add(Line("SYSCALL", serial));
    }
    ASSERT_EQ(recorder.handed.size(), 3u);
    EXPECT_EQ(recorder.handed.back(), (Handed{Line("SYSCALL", 100), false}));
    EXPECT_EQ(recorder.regrouper.PendingEvents(), RecordRegrouper::kMaxPending);
}

TEST(RecordRegrouperTest, TheSteadyStateAllocatesNothing)
{
    size_t handed = 0;
    size_t setAside = 0;
    RecordRegrouper regrouper(
        [&](std::string_view, const SetAsideRecords& aside, bool)
        {
            ++handed;
            setAside += aside.cwd && aside.proctitle ? 1 : 0;
        });
    std::vector<std::string> lines;
    for (unsigned long serial = 1; serial <= 64; ++serial)
    {
        for (const char* type : {"SYSCALL", "CWD", "PATH", "PATH", "PROCTITLE"})
        {
            const std::string rest = type == std::string("CWD") ? "cwd=\"/" + std::string(200, 'v') + "\""
                                     : type == std::string("PROCTITLE") ? "proctitle=" + std::string(200, 'A')
                                                                        : std::string(200, 'v');
            lines.push_back(Line(type, serial, 0, rest));
        }
    }
    // Eight events at a time, their records mixed.
    const auto feed = [&](size_t round)
    {
        for (size_t first = 0; first < 64; first += 8)
        {
            for (size_t record = 0; record < 5; ++record)
            {
                for (size_t event = first; event < first + 8; ++event)
                {
                    std::string& line = lines[event * 5 + record];
                    line[line.find(':') - 5] = static_cast<char>('0' + round); // a new second each round
                    regrouper.Add(line);
                }
            }
        }
    };
    feed(0);
    const uint64_t before = g_allocations.load();
    for (size_t round = 1; round < 4; ++round)
    {
        feed(round);
    }
    EXPECT_EQ(g_allocations.load() - before, 0u);
    EXPECT_EQ(handed, 4u * 64);
    EXPECT_EQ(setAside, 4u * 64);
}

} // namespace
} // namespace vantor::audit
