#include "tests/src/audit/AuditFixture.h"

#include "common/util/Lzma.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>

namespace vantor::audit
{

// The typed events, fed as received and grouped by event: the grouping, the
// trimming and the joining of records change none of them.

namespace
{

// Every fixture event once, in the order of the files.
std::vector<std::vector<std::string>> FixtureEvents()
{
    std::vector<std::vector<std::string>> events;
    std::map<std::string, size_t> byStamp;
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(CORVID_SOURCE_DIR "/tests/fixtures/audit"))
    {
        if (entry.path().extension() == ".log")
        {
            names.insert(entry.path().stem().string());
        }
    }
    std::set<std::string> finished;
    for (const auto& name : names)
    {
        std::istringstream lines(test::AuditFixture(name));
        std::set<std::string> inThisFile;
        for (std::string line; std::getline(lines, line);)
        {
            const size_t open = line.find("audit(");
            const size_t close = line.find(')', open);
            if (open == std::string::npos || close == std::string::npos)
            {
                continue;
            }
            const std::string stamp = line.substr(open, close - open);
            if (finished.count(stamp) > 0)
            {
                continue; // the same event in an earlier file
            }
            inThisFile.insert(stamp);
            auto [at, added] = byStamp.emplace(stamp, events.size());
            if (added)
            {
                events.emplace_back();
            }
            events[at->second].push_back(line + "\n");
        }
        finished.insert(inThisFile.begin(), inThisFile.end());
    }
    return events;
}

// Moves event i to second base + i / perSecond (the millis kept).
std::vector<std::vector<std::string>> Retimed(std::vector<std::vector<std::string>> events, size_t perSecond)
{
    for (size_t i = 0; i < events.size(); ++i)
    {
        for (auto& line : events[i])
        {
            const size_t at = line.find("audit(") + 6;
            line.replace(at, line.find('.', at) - at, std::to_string(1795252233 + i / perSecond));
        }
    }
    return events;
}

// The records of every run of width events mixed at random, each event's
// records in order; with straggle, the last record of each run's first event
// comes only after the next run.
std::string Interleaved(const std::vector<std::vector<std::string>>& events, size_t width, bool straggle,
                        std::mt19937& random)
{
    std::string text;
    std::string held;
    for (size_t first = 0; first < events.size(); first += width)
    {
        const size_t last = std::min(events.size(), first + width);
        std::vector<size_t> next(last - first, 0);
        std::string stragglerLine;
        for (size_t left = last - first; left > 0;)
        {
            const size_t pick = random() % (last - first);
            const auto& records = events[first + pick];
            if (next[pick] >= records.size())
            {
                continue;
            }
            const std::string& line = records[next[pick]++];
            if (straggle && pick == 0 && next[pick] == records.size() && records.size() > 1)
            {
                stragglerLine = line;
            }
            else
            {
                text += line;
            }
            left -= next[pick] == records.size() ? 1 : 0;
        }
        text += held;
        held = stragglerLine;
    }
    return text + held;
}

// What a consumer can read of an event, as one line.
std::string Describe(const edr::Event& event)
{
    std::ostringstream out;
    const auto put = [&out](const char* name, const auto& read)
    {
        out << name << '=';
        try
        {
            out << read();
        }
        catch (const std::exception&)
        {
            out << '-';
        }
        out << ' ';
    };
    put("time", [&] { return event.GetTimestamp(); });
    put("id", [&] { return event.GetEventId(); });
    put("type", [&] { return static_cast<int>(event.GetType()); });
    put("action", [&] { return event.GetActionName(); });
    put("category", [&] { return event.GetCategory(); });
    put("ok", [&] { return event.IsSuccessful(); });
    put("pid", [&] { return event.GetActorProcessId(); });
    put("ppid", [&] { return event.GetActorParentProcessId(); });
    put("uid", [&] { return event.GetActorUserId(); });
    put("euid", [&] { return event.GetActorEuid(); });
    put("auid", [&] { return event.GetActorAuid(); });
    put("image", [&] { return event.GetImage(); });
    put("image2", [&] { return event.GetSecondaryImage(); });
    put("cmd", [&] { return event.GetCommandLine(); });
    put("args", [&] { return event.GetActorProcessArguments().size(); });
    put("cwd", [&] { return event.GetCwd(); });
    put("file", [&] { return event.GetFile(); });
    put("newfile", [&] { return event.GetNewFile(); });
    put("pinode", [&] { return event.GetParentInode(); });
    put("pdev", [&] { return event.GetParentDeviceID(); });
    put("ftype", [&] { return event.GetFileType(); });
    put("symlink", [&] { return event.IsSymlink(); });
    put("addr", [&] { return event.GetNetworkAddress(); });
    put("port", [&] { return event.GetNetworkPort(); });
    put("thread", [&] { return event.IsThread(); });
    return out.str();
}

std::vector<std::string> TypedEvents(const std::string& text, AuparseFeed::Grouping grouping, size_t chunk)
{
    AuditEventBuilder builder(std::make_shared<const edr::LibMagicWrapper>("/usr/share/misc/magic.mgc"));
    AuparseFeed feed(builder, nullptr, grouping);
    std::vector<std::string> described;
    const auto keep = [&described](const AuparseFeed::Events& events)
    {
        for (const auto& event : events)
        {
            described.push_back(Describe(*event));
        }
    };
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t at = 0; at < text.size(); at += chunk)
    {
        keep(feed.Feed(bytes + at, std::min(chunk, text.size() - at)));
    }
    keep(feed.Flush());
    std::sort(described.begin(), described.end());
    return described;
}

// Sorted a and b hold the same events; a failure shows only those that differ.
void ExpectSame(const std::vector<std::string>& a, const std::vector<std::string>& b,
                const std::string& context)
{
    std::vector<std::string> onlyA, onlyB;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(onlyA));
    std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(onlyB));
    EXPECT_EQ(onlyA, std::vector<std::string>{}) << context;
    EXPECT_EQ(onlyB, std::vector<std::string>{}) << context;
}

TEST(RegroupedTypedEventsTest, TypedEventsAreTheSameAsFromTheStreamAsReceived)
{
    const auto fixtures = FixtureEvents();
    ASSERT_GT(fixtures.size(), 50u);
    struct Case
    {
        const char* name;
        size_t width;
        bool straggle;
        // Without them only time-outs and the flush end the events.
        bool dropEnds;
        size_t perSecond;
    };
    const Case cases[] = {
        {"contiguous", 1, false, false, 1000},
        {"three at a time", 3, false, false, 1000},
        {"eight at a time, stragglers", 8, true, false, 1000},
        {"eight at a time, stragglers, no end records, two events a second", 8, true, true, 2},
        {"sixteen at a time, no end records, one second", 16, false, true, 1000},
    };
    std::mt19937 random(20261123);
    for (const auto& c : cases)
    {
        auto events = Retimed(fixtures, c.perSecond);
        if (c.dropEnds)
        {
            for (auto& records : events)
            {
                std::erase_if(records,
                              [](const std::string& line) {
                                  return line.starts_with("type=PROCTITLE ") || line.starts_with("type=EOE ");
                              });
            }
        }
        const std::string text = Interleaved(events, c.width, c.straggle, random);
        const auto asReceived = TypedEvents(text, AuparseFeed::Grouping::AsReceived, 4093);
        EXPECT_GT(asReceived.size(), fixtures.size() / 2) << c.name;
        for (const size_t chunk : {4093, 61})
        {
            ExpectSame(TypedEvents(text, AuparseFeed::Grouping::ByEvent, chunk), asReceived,
                       c.name + std::string(", chunk ") + std::to_string(chunk));
        }
    }
}

TEST(RegroupedTypedEventsTest, TheDispatchersEnrichmentChangesNoTypedEvent)
{
    // auditd's dispatcher appends interpreted names to a record after a 0x1d
    // byte. Events read the raw fields: not even a forged address there
    // reaches them.
    std::string plain;
    std::string enriched;
    for (const auto& records : FixtureEvents())
    {
        for (const auto& line : records)
        {
            plain += line;
            enriched += line.substr(0, line.size() - 1) + '\x1d' +
                        (line.starts_with("type=SOCKADDR ")
                             ? "SADDR={ saddr_fam=inet laddr=203.0.113.9 lport=9 }"
                             : "ARCH=x86_64 SYSCALL=read AUID=\"unset\" UID=\"root\"") +
                        '\n';
        }
    }
    const auto expected = TypedEvents(plain, AuparseFeed::Grouping::ByEvent, 4093);
    for (const size_t chunk : {4093, 61})
    {
        ExpectSame(TypedEvents(enriched, AuparseFeed::Grouping::ByEvent, chunk), expected,
                   "chunk " + std::to_string(chunk));
    }
}

TEST(RegroupedTypedEventsTest, ARealHostsRecordsMakeTheSameTypedEventsTrimmed)
{
    // Grouped by event, the records of a call lose the dispatcher's
    // enrichment and what no builder reads; as received they reach
    // libauparse whole.
    std::ifstream in(CORVID_SOURCE_DIR "/bench/corpus/sample.audit.xz", std::ios::binary);
    const std::string text = util::LzmaDecompress(
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    const auto expected = TypedEvents(text, AuparseFeed::Grouping::AsReceived, 65536);
    ASSERT_GT(expected.size(), 3000u);
    ExpectSame(TypedEvents(text, AuparseFeed::Grouping::ByEvent, 65536), expected, "");
}

} // namespace
} // namespace vantor::audit
