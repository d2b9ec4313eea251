#include "fim/DocumentThread.h"
#include "fim/PendingDocuments.h"
#include "tests/src/fim/TestEvent.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempDir.h"

#include "common/util/Json.h"

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <thread>

using namespace vantor::fim::internal;
using namespace std::chrono_literals;
using vantor::edr::EventType;
using vantor::fim::test::TestEvent;

namespace
{

using Clock = PendingDocuments::Clock;

// A document of the event, under a rule that reads content.
PendingDocument Pending(EventType type, const std::string& path, uint32_t id = 1)
{
    rapidjson::Document json;
    json.Parse(R"({"ruleId":"r","ruleType":"directory","imagePath":"/","recursiveDepth":"all",)"
               R"("notify":["create","delete"],"trackContentChange":true})");
    auto set = std::make_shared<EventRuleManager::RuleSet>();
    set->rules.push_back(std::make_shared<EventRule>(json));
    auto event = std::make_unique<TestEvent>(type, path);
    event->id = id;
    PendingDocument document;
    document.event = std::move(event);
    document.ruleSet = std::move(set);
    document.rules = {document.ruleSet->rules.front().get()};
    document.type = type;
    document.objectPath = path;
    document.readsContent = type != EventType::Delete;
    return document;
}

std::vector<uint32_t> Ids(const PendingDocuments::Group& group)
{
    std::vector<uint32_t> ids;
    for (const auto& document : group.documents)
    {
        ids.push_back(document.event->GetEventId());
    }
    return ids;
}

TEST(FimPendingDocumentsTest, APathFallsDueASettleTimeAfterItsLastEventButIsHeldOnlySoLong)
{
    PendingDocuments pending;
    const auto t0 = Clock::now();
    pending.Add(Pending(EventType::Create, "/w/a", 1), true, t0, 1000ms);
    pending.Add(Pending(EventType::Create, "/w/a", 2), true, t0 + 800ms, 1000ms);
    EXPECT_EQ(pending.Size(), 2u);
    EXPECT_FALSE(pending.TakeDue(t0 + 1000ms));
    EXPECT_EQ(pending.NextDue(), t0 + 1800ms);
    const auto group = pending.TakeDue(t0 + 1800ms);
    ASSERT_TRUE(group);
    EXPECT_EQ(group->objectPath, "/w/a");
    EXPECT_EQ(Ids(*group), (std::vector<uint32_t>{1, 2}));
    EXPECT_TRUE(pending.Empty());

    // A file written without pause is still reported, after a bounded hold.
    for (int i = 0; i < 40; ++i)
    {
        pending.Add(Pending(EventType::Create, "/w/log", static_cast<uint32_t>(i)), true, t0 + i * 500ms,
                    1000ms);
    }
    EXPECT_EQ(pending.NextDue(), t0 + PendingDocuments::kMaxHoldFactor * 1000ms);
}

TEST(FimPendingDocumentsTest, DocumentsThatNeedNoContentKeepTheirPlaceWithoutWaiting)
{
    PendingDocuments pending;
    const auto t0 = Clock::now();
    pending.Add(Pending(EventType::Delete, "/w/gone", 1), false, t0, 1000ms);
    pending.Add(Pending(EventType::Create, "/w/b", 2), true, t0, 1000ms);
    pending.Add(Pending(EventType::Delete, "/w/b", 3), false, t0 + 10ms, 1000ms);
    pending.Add(Pending(EventType::Create, "/w/c", 4), true, t0 + 20ms, 1000ms);
    // Nothing to read: due at once.
    auto group = pending.TakeDue(t0);
    ASSERT_TRUE(group);
    EXPECT_EQ(Ids(*group), std::vector<uint32_t>{1});
    // The delete waits behind the create of its path, and does not delay it.
    EXPECT_FALSE(pending.TakeDue(t0 + 999ms));
    group = pending.TakeDue(t0 + 1000ms);
    ASSERT_TRUE(group);
    EXPECT_EQ(Ids(*group), (std::vector<uint32_t>{2, 3}));
    // The first to fall due is taken first, whatever its time.
    group = pending.TakeFirst();
    ASSERT_TRUE(group);
    EXPECT_EQ(group->objectPath, "/w/c");
    EXPECT_FALSE(pending.TakeFirst());
}

// A document thread over a builder without store, collecting what it builds.
class FimDocumentThreadTest : public testing::Test
{
protected:
    void Make(size_t maxPending, std::chrono::milliseconds settle)
    {
        m_thread = std::make_unique<DocumentThread>(m_builder, m_walk, maxPending);
        m_thread->SetSettleTime(settle);
        m_thread->Start();
    }

    std::vector<rapidjson::Document> Built()
    {
        std::lock_guard lock(m_mutex);
        std::vector<rapidjson::Document> documents;
        for (const auto& text : m_documents)
        {
            documents.emplace_back();
            EXPECT_TRUE(vantor::util::ParseJson(documents.back(), text)) << text;
        }
        return documents;
    }

    size_t Count()
    {
        std::lock_guard lock(m_mutex);
        return m_documents.size();
    }

    bool WaitFor(size_t count, std::chrono::milliseconds timeout)
    {
        return vantor::test::Eventually([&] { return Count() >= count; }, timeout);
    }

    vantor::test::TempDir m_dir;
    std::mutex m_mutex;
    std::vector<std::string> m_documents;
    FileStateStore m_store{nullptr};
    DocumentBuilder m_builder{m_store, [this](std::string document)
                              {
                                  std::lock_guard lock(m_mutex);
                                  m_documents.push_back(std::move(document));
                              }};
    vantor::fim::test::RecordingRuleEngine m_engine;
    EventRuleManager m_manager{m_engine, "FIM"};
    BaselineWalk m_walk{m_manager, m_builder};
    std::unique_ptr<DocumentThread> m_thread;
};

TEST_F(FimDocumentThreadTest, ContentIsWhatTheWriterLeftWhenThePathSettled)
{
    Make(100, 300ms);
    const std::string file = m_dir.File("copy.txt");
    std::ofstream(file) << "";
    const auto start = Clock::now();
    m_thread->Add(Pending(EventType::Create, file, 1), true);
    std::ofstream(file) << "what cp wrote\n";
    const std::string gone = m_dir.Write("gone.txt", "soon gone");
    m_thread->Add(Pending(EventType::Create, gone, 2), true);
    std::remove(gone.c_str());
    ASSERT_TRUE(WaitFor(2, 5s));
    EXPECT_GE(Clock::now() - start, 300ms);
    const auto documents = Built();
    EXPECT_STREQ(documents[0]["fileContent"].GetString(), "what cp wrote\n");
    EXPECT_STREQ(documents[0]["contentStatus"].GetString(), "READ_SUCCESSFUL");
    EXPECT_EQ(documents[0]["operation"]["new"]["size"].GetUint(), 14u);
    EXPECT_STREQ(documents[1]["contentStatus"].GetString(), "READ_FAILURE");
    EXPECT_EQ(m_thread->GetOverflowCount(), 0u);
}

// The thread sleeps until the first group is due; a document due earlier
// must wake it.
TEST_F(FimDocumentThreadTest, ADocumentDueNowIsBuiltWhileAnotherSettles)
{
    Make(100, 3s);
    m_thread->Add(Pending(EventType::Create, m_dir.Write("slow", "x"), 1), true);
    std::this_thread::sleep_for(50ms);
    m_thread->Add(Pending(EventType::Delete, m_dir.File("gone"), 2), false);
    ASSERT_TRUE(WaitFor(1, 1500ms));
    EXPECT_EQ(Built()[0]["eventId"].GetUint(), 2u);
}

TEST_F(FimDocumentThreadTest, DocumentsOfOnePathKeepTheirOrder)
{
    Make(100, 100ms);
    const std::string file = m_dir.Write("f", "x");
    m_thread->Add(Pending(EventType::Create, file, 1), true);
    m_thread->Add(Pending(EventType::Delete, file, 2), false);
    m_thread->Add(Pending(EventType::Create, file, 3), true);
    m_thread->Add(Pending(EventType::Delete, m_dir.File("other"), 4), false);
    ASSERT_TRUE(WaitFor(4, 5s));
    std::vector<uint32_t> ids;
    for (const auto& document : Built())
    {
        if (std::string(document["imagePath"].GetString()) == file)
        {
            ids.push_back(document["eventId"].GetUint());
        }
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3}));
}

// A full queue builds early and counts instead of dropping, and makes room
// down to three quarters of its bound rather than for one document.
TEST_F(FimDocumentThreadTest, AFullQueueBuildsEarlyCountsAndMakesRoomForARun)
{
    struct Case
    {
        size_t bound;
        uint32_t adds;
        size_t built;
        uint64_t overflows;
        size_t pending;
    };
    // Bound 2: each of the three Adds beyond it has one group built. Bound 8:
    // the ninth has two built, so the tenth goes in and only the eleventh waits.
    for (const Case& c : {Case{2, 5, 3, 3, 2}, Case{8, 11, 4, 2, 7}})
    {
        SCOPED_TRACE(c.bound);
        const size_t before = Count();
        Make(c.bound, 60s);
        for (uint32_t id = 1; id <= c.adds; ++id)
        {
            m_thread->Add(Pending(EventType::Create, m_dir.File("f" + std::to_string(id)), id), true);
        }
        // Built at once, long before 60 s.
        ASSERT_TRUE(WaitFor(before + c.built, 5s));
        EXPECT_EQ(m_thread->GetOverflowCount(), c.overflows);
        EXPECT_EQ(m_thread->GetPendingCount(), c.pending);
        m_thread->Stop();
        EXPECT_EQ(Count(), before + c.adds);
    }
}

TEST_F(FimDocumentThreadTest, StopBuildsWhatWaitsAndLaterDocumentsAreBuiltAtOnce)
{
    Make(100, 60s);
    m_thread->Add(Pending(EventType::Create, m_dir.File("a"), 1), true);
    m_thread->Add(Pending(EventType::Create, m_dir.File("b"), 2), true);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Count(), 0u);
    m_thread->Flush();
    EXPECT_EQ(Count(), 2u);
    m_thread->Add(Pending(EventType::Create, m_dir.File("c"), 3), true);
    m_thread->Stop();
    EXPECT_EQ(Count(), 3u);
    m_thread->Add(Pending(EventType::Create, m_dir.File("d"), 4), true);
    EXPECT_EQ(Count(), 4u);
}

} // namespace
