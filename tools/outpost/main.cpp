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
                 "Listens on the agent socket (default $CORVID_EDR_AGENT_SOCKET when set, else\n"
                 "/var/run/corvid/outpost/sock/agent_edr.sock; corvid-edr honours the same\n"
                 "variable, and a daemon started with --start is given the path in it) and names\n"
                 "FILE in a \"config\" command when the daemon connects. --then sends exit,\n"
                 "config, fim_status or ioc_status, --after seconds after the previous step.\n"
                 "Control input (stdin), one word per line: exit, config, fim_status, ioc_status,\n"
                 "close (drop the daemon and stop listening), listen, quit. With --start the tool\n"
                 "runs the daemon itself and ends with its exit status once it has gone.\n";
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
