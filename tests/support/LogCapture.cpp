#include "tests/support/LogCapture.h"

#include <algorithm>

namespace vantor::test
{

void CaptureChannel::log(const Poco::Message& message)
{
    std::lock_guard lock(m_mutex);
    m_lines.push_back(message.getText());
}

std::vector<std::string> CaptureChannel::Lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

size_t CaptureChannel::Count(const std::string& text) const
{
    std::lock_guard lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(),
                                             [&](const std::string& line)
                                             { return line.find(text) != std::string::npos; }));
}

void CaptureChannel::Clear()
{
    std::lock_guard lock(m_mutex);
    m_lines.clear();
}

LogCapture::LogCapture(Poco::Logger& logger, int level)
    : m_logger(logger)
    , m_channel(new CaptureChannel)
    , m_previousChannel(logger.getChannel(), true)
    , m_previousLevel(logger.getLevel())
{
    m_logger.setChannel(m_channel);
    m_logger.setLevel(level);
}

LogCapture::~LogCapture()
{
    m_logger.setChannel(m_previousChannel);
    m_logger.setLevel(m_previousLevel);
}

} // namespace vantor::test
