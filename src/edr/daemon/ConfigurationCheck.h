#pragma once

#include <string>
#include <vector>

namespace vantor::edr
{

// A check of a configuration before the agent hands it to the daemon: runs
// the daemon's own parsers over the configuration file, the FIM and IOC
// manifests it names and the logging configuration, and collects every
// failure with the exact text the daemon would log, instead of stopping at
// the first. Rules the parsers skip (the daemon logs them and goes on) are
// errors here too: the daemon would run without them.
//
// The logging configuration is checked last and the way the daemon sets it
// up, so its file channels are opened (their directories made): a
// configuration whose log file cannot be written fails here as it would at
// start. That sets up the process's loggers; run it in a process of its own.
class ConfigurationCheck
{
public:
    struct Finding
    {
        bool error = true; // otherwise a warning: the daemon runs, but less well
        std::string file;
        std::string text;
    };

    // Answers the findings; the configuration loads when none is an error.
    static std::vector<Finding> Run(const std::string& configFile);
    static bool Loads(const std::vector<Finding>& findings);
    // "error: FILE: TEXT" or "warning: FILE: TEXT".
    static std::string Format(const Finding& finding);
};

} // namespace vantor::edr
