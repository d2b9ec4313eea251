#pragma once

#include "common/Logging.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include <exception>

namespace vantor::test
{

// Every log statement is formatted (trace level) and thrown away: the text
// of rejected or odd input is part of what a fuzzer exercises.
inline void QuietLogsAtTrace()
{
    Poco::AutoPtr<Poco::NullChannel> sink(new Poco::NullChannel);
    for (Poco::Logger* logger :
         {&Poco::Logger::root(), &vantor::common::Logging::Edr(), &vantor::common::Logging::Events()})
    {
        logger->setChannel(sink);
        logger->setLevel(Poco::Message::PRIO_TRACE);
    }
}

// Runs one parse or build of fuzzed input; an exception is the refusal that
// bad input must get, anything else (a crash, a sanitizer report) is a fault.
template <typename Parse>
void Refusable(Parse parse)
{
    try
    {
        parse();
    }
    catch (const std::exception&)
    {
    }
}

} // namespace vantor::test
