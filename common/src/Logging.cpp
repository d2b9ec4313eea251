#include "common/Logging.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/File.h>
#include <Poco/Path.h>
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
    // File channels write below directories that may not exist yet on a fresh
    // host; create them, then open every channel so that an unusable one is
    // reported now (as a Poco::Exception) rather than at the first line.
    Poco::Util::AbstractConfiguration::Keys channels;
    config->keys("logging.channels", channels);
    for (const auto& name : channels)
    {
        const std::string pathKey = "logging.channels." + name + ".path";
        if (config->hasProperty(pathKey))
        {
            const Poco::Path path(config->getString(pathKey));
            Poco::File(path.parent()).createDirectories();
        }
    }
    Poco::Util::LoggingConfigurator configurator;
    configurator.configure(config);
    std::vector<std::string> loggers;
    Poco::Logger::names(loggers);
    for (const auto& name : loggers)
    {
        if (Poco::Channel* channel = Poco::Logger::get(name).getChannel())
        {
            channel->open();
        }
    }
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

void Logging::Write(Poco::Logger& logger, const std::string& text, Poco::Message::Priority priority) noexcept
{
    try
    {
        logger.log(Poco::Message(logger.name(), text, priority));
    }
    catch (...)
    {
        // Nowhere left to report it.
    }
}

void Logging::ResetForTesting()
{
    std::lock_guard lock(g_initMutex);
    g_initialized = false;
}

} // namespace vantor::common
