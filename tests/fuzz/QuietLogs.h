#pragma once

#include "common/Logging.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

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

} // namespace vantor::test
