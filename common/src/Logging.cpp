#include "Logging.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/LoggingConfigurator.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace vantor::common
{

namespace
{
std::mutex g_initMutex;
std::atomic<bool> g_initialized{false};
} // namespace

void Logging::Initialize(const std::string& configFile)
{
    std::lock_guard lock(g_initMutex);
    if (g_initialized)
    {
        throw std::logic_error("Logger is already initialized");
    }
    Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(
        new Poco::Util::PropertyFileConfiguration(configFile));
    Poco::Util::LoggingConfigurator configurator;
    configurator.configure(config);
    g_initialized = true;
}

void Logging::RefreshLevels(const std::string& configFile)
{
    Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(
        new Poco::Util::PropertyFileConfiguration(configFile));
    std::vector<std::string> existing;
    Poco::Logger::names(existing);
    for (unsigned n = 1;; ++n)
    {
        const std::string base = "logging.loggers.l" + std::to_string(n);
        const std::string levelKey = base + ".level";
        const std::string nameKey = base + ".name";
        if (!config->hasProperty(levelKey) || !config->hasProperty(nameKey))
        {
            break;
        }
        const std::string level = config->getString(levelKey);
        const std::string name = config->getString(nameKey);
        bool known = false;
        for (const auto& e : existing)
        {
            known = known || e == name;
        }
        if (known)
        {
            EDR_LOG_INFO("Updating log level to " << level);
            Poco::Logger::get(name).setLevel(level);
        }
        else
        {
            EDR_LOG_INFO("Ignoring unknown logger " << name);
        }
    }
}

bool Logging::IsInitialized()
{
    return g_initialized;
}

Poco::Logger& Logging::Edr()
{
    static Poco::Logger& logger = Poco::Logger::get(kEdrLoggerName);
    return logger;
}

Poco::Logger& Logging::Events()
{
    static Poco::Logger& logger = Poco::Logger::get(kEventsLoggerName);
    return logger;
}

const std::string& Logging::ThreadTag()
{
    thread_local const std::string tag = "[" + std::to_string(::gettid()) + "]:";
    return tag;
}

void Logging::ResetForTesting()
{
    std::lock_guard lock(g_initMutex);
    g_initialized = false;
}

} // namespace vantor::common
