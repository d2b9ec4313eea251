// The hash matching engine: hashing once per executable until a file event
// changes it, verdicts passed from parents and kept on processes, known
// executables, and hash failures.

#include "ioc/HashMatchingEngine.h"
#include "ioc/TtlProcessTree.h"
#include "ioc/Verdict.h"
#include "tests/src/ioc/FakeProc.h"
#include "tests/src/ioc/IocTestEvent.h"
#include "tests/support/ExpectThrowText.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/HashGeneratorException.h"
#include "common/Logging.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace vantor;
using namespace std::chrono_literals;
using ioc::Verdict;
using ioc::internal::HashMatchingEngine;
using ioc::test::IocTestEvent;

namespace
{

class HashMatchingEngineTest : public testing::Test
{
protected:
    // Starts a process and answers the engine's verdict for its start.
    Verdict Start(pid_t pid, pid_t parent, const std::string& image)
    {
        const auto event = ioc::test::RunningEvent(pid, parent, image);
        m_tree.AddOrUpdate(event);
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    Verdict FileEvent(pid_t pid, edr::EventType type, const std::string& file,
                      const std::string& newFile = "")
    {
        auto event = ioc::test::By(pid, ioc::test::FileEvent(type, file));
        event.newFile = newFile;
        return m_engine.GetVerdict(std::make_shared<IocTestEvent>(event));
    }

    void Store(pid_t pid, Verdict verdict)
    {
        m_tree.AddOrUpdate(ioc::test::RunningEvent(pid, 1, "/usr/bin/stored"));
        ASSERT_TRUE(m_tree.SetVerdict(pid, HashMatchingEngine::kVerdictKey, static_cast<int>(verdict)));
    }

    ioc::test::FakeProc m_proc;
    ioc::TtlProcessTree m_tree{m_proc.Root()};
    // Path -> times hashed; a path in m_unreadable cannot be hashed.
    std::map<std::string, int> m_hashed;
    std::set<std::string> m_unreadable;
    HashMatchingEngine m_engine{m_tree, [this](const std::string& path, uint64_t)
                                {
                                    if (m_unreadable.count(path) != 0)
                                    {
                                        throw std::runtime_error("unreadable");
                                    }
                                    return "hash of " + path + std::to_string(++m_hashed[path]);
                                }};
};

TEST_F(HashMatchingEngineTest, AnExecutableIsHashedOncePerPathUntilAFileEventChangesIt)
{
    test::LogCapture log(common::Logging::Edr());
    EXPECT_EQ(Start(10, 1, "/usr/bin/a"), Verdict::Unknown) << "a first sighting";
    EXPECT_TRUE(log.Contains("Adding verdict: Unknown. Hash not found for process: 10"));
    EXPECT_EQ(Start(11, 1, "/usr/bin/a"), Verdict::Clean);
    EXPECT_TRUE(log.Contains("Adding verdict: Clean. Hash found for process: 11"));
    EXPECT_EQ(m_hashed["/usr/bin/a"], 1);
    EXPECT_EQ(m_engine.GetHash("/usr/bin/a"), "hash of /usr/bin/a1");

    FileEvent(11, edr::EventType::Read, "/usr/bin/a");
    FileEvent(11, edr::EventType::Attribute, "/usr/bin/a");
    EXPECT_EQ(Start(12, 1, "/usr/bin/a"), Verdict::Clean) << "reading or chmod changes no content";

    FileEvent(11, edr::EventType::Write, "/usr/bin/a");
    EXPECT_FALSE(m_engine.GetHash("/usr/bin/a"));
    EXPECT_EQ(Start(13, 1, "/usr/bin/a"), Verdict::Unknown);
    FileEvent(11, edr::EventType::Rename, "/tmp/new", "/usr/bin/a");
    EXPECT_EQ(Start(14, 1, "/usr/bin/a"), Verdict::Unknown) << "renamed over";
    EXPECT_EQ(m_hashed["/usr/bin/a"], 3);
}

TEST_F(HashMatchingEngineTest, ParentsPassOnUnknownOrWorseAndAStoredVerdictNeverGoesDown)
{
    Start(5, 1, "/usr/bin/hashed");
    test::LogCapture log(common::Logging::Edr());

    Store(10, Verdict::Malicious);
    EXPECT_EQ(Start(11, 10, "/usr/bin/hashed"), Verdict::Malicious);
    EXPECT_TRUE(log.Contains("Adding verdict: Malicious from parent process: 10"));
    EXPECT_EQ(FileEvent(11, edr::EventType::Write, "/tmp/x"), Verdict::Malicious) << "kept on the process";

    Store(20, Verdict::Clean);
    EXPECT_EQ(Start(21, 20, "/usr/bin/hashed"), Verdict::Clean);
    EXPECT_EQ(Start(22, 20, "/usr/bin/new"), Verdict::Unknown) << "judged on its own hash";

    Store(30, Verdict::Suspicious);
    EXPECT_EQ(Start(30, 1, "/usr/bin/hashed"), Verdict::Suspicious) << "a new image of the same process";
    EXPECT_TRUE(log.Contains("Adding verdict: Suspicious from existing process"));
    EXPECT_EQ(FileEvent(30, edr::EventType::Read, "/etc/hosts"), Verdict::Suspicious);

    Store(40, static_cast<Verdict>(7));
    test::ExpectThrowText<ioc::VerdictException>([&] { FileEvent(40, edr::EventType::Read, "/etc/hosts"); },
                                                 "Cannot convert verdict 7 to string");
}

TEST_F(HashMatchingEngineTest, KnownExecutablesAreCleanWithoutHashButMustBeHashable)
{
    Start(5, 1, "/usr/bin/seen");
    m_engine.Reset({"/usr/bin/known", "/usr/bin/broken"}, 1024);
    EXPECT_FALSE(m_engine.GetHash("/usr/bin/seen")) << "a reset forgets the hashes";
    EXPECT_EQ(Start(10, 1, "/usr/bin/known"), Verdict::CleanWithoutHash);
    EXPECT_EQ(m_hashed["/usr/bin/known"], 1);

    m_unreadable = {"/usr/bin/broken", "/usr/bin/other"};
    test::ExpectThrowText<common::HashGeneratorException>(
        [&] { Start(11, 1, "/usr/bin/broken"); },
        "Failed to generate hash for known process: /usr/bin/broken: unreadable");
    EXPECT_EQ(Start(12, 1, "/usr/bin/other"), Verdict::Unknown) << "only a known executable must be hashable";
}

TEST(HashMatchingEngineDigestTest, TakesTheSha256OfTheFileWithinTheSizeLimit)
{
    test::TempDir dir;
    const std::string path = dir.Write("tool", "abc");
    EXPECT_EQ(HashMatchingEngine::DefaultHash(path, 3),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_THROW(HashMatchingEngine::DefaultHash(path, 2), std::runtime_error);
}

} // namespace
