#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>
#include <vector>

namespace vantor::test
{

// Keeps every line a logger writes, so that tests can check the exact texts.
class CaptureChannel : public Poco::Channel
{
public:
    void log(const Poco::Message& message) override;

    std::vector<std::string> Lines() const;
    // Number of lines containing text.
    size_t Count(const std::string& text) const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    void Clear();

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Routes a logger into a CaptureChannel at a given level for the life of the
// object, then restores the logger's channel and level.
class LogCapture
{
public:
    explicit LogCapture(Poco::Logger& logger, int level = Poco::Message::PRIO_TRACE);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    CaptureChannel& Channel() { return *m_channel; }
    size_t Count(const std::string& text) const { return m_channel->Count(text); }
    bool Contains(const std::string& text) const { return m_channel->Contains(text); }
    std::vector<std::string> Lines() const { return m_channel->Lines(); }

private:
    Poco::Logger& m_logger;
    Poco::AutoPtr<CaptureChannel> m_channel;
    Poco::AutoPtr<Poco::Channel> m_previousChannel;
    int m_previousLevel;
};

} // namespace vantor::test
