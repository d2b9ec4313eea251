#include "common/Logging.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <thread>
#include <unistd.h>

using vantor::common::Logging;

namespace
{

using vantor::test::CaptureChannel;

class LoggingTest : public testing::Test
{
protected:
    void SetUp() override
    {
        Logging::ResetForTesting();
        channel = new CaptureChannel;
    }
    void TearDown() override
    {
        Logging::ResetForTesting();
        Logging::Edr().setChannel(nullptr);
        Logging::Edr().setLevel(Poco::Message::PRIO_FATAL);
    }

    vantor::test::TempDir dir;
    Poco::AutoPtr<CaptureChannel> channel;
};

} // namespace

TEST_F(LoggingTest, RefreshStopsAtFirstGapAndSkipsUnknownLoggers)
{
    Poco::Logger::get("refresh.one").setLevel("error");
    Poco::Logger::get("refresh.two").setLevel("error");
    Poco::Logger::get("refresh.four").setLevel("error");
    Logging::Edr().setChannel(channel);
    Logging::Edr().setLevel(Poco::Message::PRIO_INFORMATION);

    const auto file = dir.Write("levels.properties", "logging.loggers.l1.name = refresh.one\n"
                                                     "logging.loggers.l1.level = debug\n"
                                                     "logging.loggers.l2.name = refresh.two\n"
                                                     "logging.loggers.l2.level = trace\n"
                                                     "logging.loggers.l4.name = refresh.four\n"
                                                     "logging.loggers.l4.level = debug\n");
    Logging::RefreshLevels(file);
    EXPECT_EQ(Poco::Logger::get("refresh.one").getLevel(), Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(Poco::Logger::get("refresh.two").getLevel(), Poco::Message::PRIO_TRACE);
    EXPECT_EQ(Poco::Logger::get("refresh.four").getLevel(), Poco::Message::PRIO_ERROR) << "l3 is missing";

    const auto unknown = dir.Write("unknown.properties", "logging.loggers.l1.name = never.created.logger\n"
                                                         "logging.loggers.l1.level = debug\n");
    Logging::RefreshLevels(unknown);
    const auto lines = channel->Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("Ignoring unknown logger never.created.logger"), std::string::npos);
    EXPECT_EQ(lines.back().rfind(Logging::ThreadTag(), 0), 0u) << "lines carry the thread tag";
    EXPECT_FALSE(Poco::Logger::has("never.created.logger"));
}

TEST_F(LoggingTest, InitializesOnceFromAValidPropertyFileOnly)
{
    EXPECT_THROW(Logging::Initialize(dir.File("missing.properties")), Poco::Exception);
    const auto bad = dir.Write("bad.properties", "logging.loggers.l1.name = edr\n"
                                                 "logging.loggers.l1.channel = nowhere\n");
    EXPECT_THROW(Logging::Initialize(bad), Poco::Exception);
    const auto blocked = dir.Write("blocker", "a file where a directory is needed");
    const auto unusable = dir.Write("unusable.properties", "logging.loggers.l1.name = edr\n"
                                                           "logging.loggers.l1.channel = file\n"
                                                           "logging.channels.file.class = FileChannel\n"
                                                           "logging.channels.file.path = " +
                                                               blocked + "/edr.log\n");
    EXPECT_THROW(Logging::Initialize(unusable), Poco::Exception);
    EXPECT_FALSE(Logging::IsInitialized());

    // Failed attempts leave the way open for a valid file, once.
    const auto log = dir.File("not/yet/there/edr.log");
    const auto file = dir.Write("logging.properties", "logging.loggers.l1.name = edr\n"
                                                      "logging.loggers.l1.level = debug\n"
                                                      "logging.loggers.l1.channel = file\n"
                                                      "logging.channels.file.class = FileChannel\n"
                                                      "logging.channels.file.path = " +
                                                          log + "\n");
    Logging::Initialize(file);
    EXPECT_TRUE(Logging::IsInitialized());
    EXPECT_EQ(Logging::Edr().getLevel(), Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(::access(log.c_str(), F_OK), 0) << "missing directories are created and the file opened";
    EXPECT_THROW(Logging::Initialize(file), std::logic_error);
}

TEST_F(LoggingTest, DroppedLevelsAreNotFormatted)
{
    Logging::Edr().setChannel(channel);
    Logging::Edr().setLevel(Poco::Message::PRIO_ERROR);
    int evaluated = 0;
    auto count = [&evaluated] { return ++evaluated; };
    EDR_LOG_DEBUG("value " << count());
    EXPECT_EQ(evaluated, 0);
    EDR_LOG_ERROR("value " << count());
    EXPECT_EQ(evaluated, 1);

    std::string otherTag;
    std::thread([&otherTag] { otherTag = Logging::ThreadTag(); }).join();
    EXPECT_NE(otherTag, Logging::ThreadTag());
}
