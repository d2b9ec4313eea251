#pragma once

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <sstream>
#include <string>

namespace vantor::common
{

// Access to the daemon's two loggers and their set-up. Lines written through
// the CORVID_LOG macros start with "[" + thread id + "]:" and are formatted
// only when the logger's level lets them through.
class Logging
{
public:
    static constexpr const char* kEdrLoggerName = "edr";
    static constexpr const char* kEventsLoggerName = "edr_events";

    // Configures channels, formatters and loggers from a Poco property file.
    // Throws Poco::Exception for an invalid file and std::logic_error
    // "Logger is already initialized" on a second call.
    static void Initialize(const std::string& configFile);

    // Re-reads only the logger levels l1, l2, ... of a property file and
    // applies them to the loggers that exist; stops at the first gap.
    static void RefreshLevels(const std::string& configFile);

    static bool IsInitialized();

    static Poco::Logger& Edr();
    static Poco::Logger& Events();

    // "[" + thread id + "]:" for the calling thread (cached per thread).
    static const std::string& ThreadTag();

    // Hands one line to a logger. A failing channel (disk full, file gone)
    // never reaches the caller: logging must not end the daemon.
    static void Write(Poco::Logger& logger, const std::string& text,
                      Poco::Message::Priority priority) noexcept;

    // Only for tests: forget that Initialize ran.
    static void ResetForTesting();
};

} // namespace vantor::common

#define CORVID_LOG_TO(logger, prio, expr)                                                                    \
    do                                                                                                       \
    {                                                                                                        \
        Poco::Logger& corvidLogger_ = (logger);                                                              \
        if (corvidLogger_.is(prio))                                                                          \
        {                                                                                                    \
            std::ostringstream corvidStream_;                                                                \
            corvidStream_ << ::vantor::common::Logging::ThreadTag() << expr;                                 \
            ::vantor::common::Logging::Write(corvidLogger_, corvidStream_.str(), prio);                      \
        }                                                                                                    \
    } while (false)

#define CORVID_LOG(prio, expr) CORVID_LOG_TO(::vantor::common::Logging::Edr(), prio, expr)
#define EDR_LOG_FATAL(expr) CORVID_LOG(Poco::Message::PRIO_FATAL, expr)
#define EDR_LOG_CRITICAL(expr) CORVID_LOG(Poco::Message::PRIO_CRITICAL, expr)
#define EDR_LOG_ERROR(expr) CORVID_LOG(Poco::Message::PRIO_ERROR, expr)
#define EDR_LOG_WARNING(expr) CORVID_LOG(Poco::Message::PRIO_WARNING, expr)
#define EDR_LOG_NOTICE(expr) CORVID_LOG(Poco::Message::PRIO_NOTICE, expr)
#define EDR_LOG_INFO(expr) CORVID_LOG(Poco::Message::PRIO_INFORMATION, expr)
#define EDR_LOG_DEBUG(expr) CORVID_LOG(Poco::Message::PRIO_DEBUG, expr)
#define EDR_LOG_TRACE(expr) CORVID_LOG(Poco::Message::PRIO_TRACE, expr)
#define EDR_LOG_EVENT_TRACE(expr)                                                                            \
    CORVID_LOG_TO(::vantor::common::Logging::Events(), Poco::Message::PRIO_TRACE, expr)
