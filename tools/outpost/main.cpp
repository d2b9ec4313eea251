#include "tools/outpost/StandInAgent.h"

#include <cstdlib>
#include <iostream>
#include <string>

namespace
{

void Usage()
{
    std::cerr << "usage: corvid-outpost --config FILE [--socket PATH] [--start CORVID_EDR]\n"
                 "                      [--then COMMAND [--after SECONDS]]... [--exit-on-disconnect]\n"
                 "\n"
                 "Listens on the agent socket (default /var/run/corvid/outpost/sock/agent_edr.sock;\n"
                 "the daemon always connects there) and names FILE in a \"config\" command when the\n"
                 "daemon connects. --then sends exit, config, fim_status or ioc_status, --after\n"
                 "seconds after the previous step. Control input (stdin), one word per line:\n"
                 "exit, config, fim_status, ioc_status, close (drop the daemon and stop listening),\n"
                 "listen, quit. With --start the tool runs the daemon itself and ends with its\n"
                 "exit status once it has gone.\n";
}

} // namespace

int main(int argc, char** argv)
{
    vantor::tools::StandInAgent::Options options;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--config" && hasValue)
        {
            options.configFile = argv[++i];
        }
        else if (arg == "--socket" && hasValue)
        {
            options.socketPath = argv[++i];
        }
        else if (arg == "--start" && hasValue)
        {
            options.daemonBinary = argv[++i];
        }
        else if (arg == "--then" && hasValue)
        {
            options.steps.push_back({argv[++i], std::chrono::milliseconds(0)});
        }
        else if (arg == "--after" && hasValue && !options.steps.empty())
        {
            char* end = nullptr;
            const double seconds = std::strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || seconds < 0)
            {
                Usage();
                return 2;
            }
            options.steps.back().after = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
        }
        else if (arg == "--exit-on-disconnect")
        {
            options.exitOnDisconnect = true;
        }
        else
        {
            Usage();
            return 2;
        }
    }
    if (options.configFile.empty())
    {
        Usage();
        return 2;
    }
    return vantor::tools::StandInAgent(std::move(options)).Run();
}
