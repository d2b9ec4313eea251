#pragma once

#include "Logging.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::test
{

// Records what the daemon's "edr" logger writes while it lives, at every
// level, and restores the logger afterwards.
class CapturedLog
{
public:
    CapturedLog()
        : m_channel(new Recorder)
        , m_previousChannel(common::Logging::Edr().getChannel())
        , m_previousLevel(common::Logging::Edr().getLevel())
    {
        common::Logging::Edr().setChannel(m_channel);
        common::Logging::Edr().setLevel(Poco::Message::PRIO_TRACE);
    }

    ~CapturedLog()
    {
        common::Logging::Edr().setChannel(m_previousChannel);
        common::Logging::Edr().setLevel(m_previousLevel);
    }

    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<std::string> Lines() const
    {
        std::lock_guard lock(m_channel->mutex);
        return m_channel->lines;
    }

    // Whether some line contains the text.
    bool Contains(const std::string& text) const
    {
        const auto lines = Lines();
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }

    size_t Count(const std::string& text) const
    {
        const auto lines = Lines();
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                                 [&](const std::string& line)
                                                 { return line.find(text) != std::string::npos; }));
    }

    void Clear()
    {
        std::lock_guard lock(m_channel->mutex);
        m_channel->lines.clear();
    }

private:
    struct Recorder : Poco::Channel
    {
        void log(const Poco::Message& message) override
        {
            std::lock_guard lock(mutex);
            lines.push_back(message.getText());
        }

        mutable std::mutex mutex;
        std::vector<std::string> lines;
    };

    Poco::AutoPtr<Recorder> m_channel;
    Poco::AutoPtr<Poco::Channel> m_previousChannel;
    int m_previousLevel;
};

} // namespace vantor::test
