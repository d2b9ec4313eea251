#include "audit/KernelRuleInstaller.h"
#include "edr/daemon/ConfigurationCheck.h"
#include "fim/Component.h"
#include "ioc/Component.h"
#include "tools/outpost/StandInAgent.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace
{

void Usage(std::ostream& out)
{
    out << "usage: corvid-outpost --config FILE [--socket PATH] [--start CORVID_EDR]\n"
           "                      [--then COMMAND [--after SECONDS]]... [--exit-on-disconnect]\n"
           "       corvid-outpost --check-config FILE\n"
           "       corvid-outpost --remove-rules\n"
           "       corvid-outpost --help | --version\n"
           "\n"
           "Listens on the agent socket (default $CORVID_EDR_AGENT_SOCKET when set, else\n"
           "/var/run/corvid/outpost/sock/agent_edr.sock; corvid-edr honours the same\n"
           "variable, and a daemon started with --start is given the path in it) and names\n"
           "FILE in a \"config\" command when the daemon connects. --then sends exit,\n"
           "config, fim_status or ioc_status, --after seconds after the previous step.\n"
           "Control input (stdin), one word per line: exit, config, fim_status, ioc_status,\n"
           "close (drop the daemon and stop listening), listen, quit. With --start the tool\n"
           "runs the daemon itself and ends with its exit status once it has gone.\n"
           "\n"
           "--check-config runs the daemon's own parsers over FILE, the FIM and IOC manifests\n"
           "it names and the logging configuration, prints every error with the daemon's text\n"
           "and exits 0 only when all of them load. --remove-rules deletes the kernel audit\n"
           "rules a daemon that could not clean up left behind (none may run).\n";
}

// Process ids of running corvid-edr daemons. A killed one that nobody has
// reaped yet (a zombie) holds no rules and does not count.
std::string RunningDaemons()
{
    std::string pids;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec))
    {
        std::string stat;
        std::getline(std::ifstream(entry.path() / "stat"), stat);
        // "<pid> (<comm>) <state> ...": the name may hold anything but the
        // last ')' ends it.
        const auto open = stat.find('(');
        const auto close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close < open ||
            stat.compare(open + 1, close - open - 1, "corvid-edr") != 0 || stat.compare(close, 3, ") Z") == 0)
        {
            continue;
        }
        pids += (pids.empty() ? "" : " ") + entry.path().filename().string();
    }
    return pids;
}

int CheckConfig(const std::string& file)
{
    const auto findings = vantor::edr::ConfigurationCheck::Run(file);
    for (const auto& finding : findings)
    {
        std::cout << vantor::edr::ConfigurationCheck::Format(finding) << "\n";
    }
    const bool loads = vantor::edr::ConfigurationCheck::Loads(findings);
    std::cout << file << (loads ? ": configuration loads" : ": configuration does not load") << std::endl;
    return loads ? 0 : 1;
}

int RemoveRules()
{
    if (const std::string pids = RunningDaemons(); !pids.empty())
    {
        std::cerr << "corvid-outpost: corvid-edr runs (pid " << pids
                  << "); it removes its own rules when it stops\n";
        return 1;
    }
    const auto removed = vantor::audit::KernelRuleInstaller::RemoveLeftoverRules(
        {vantor::fim::Component::kTag, vantor::ioc::Component::kTag});
    if (!removed)
    {
        std::cerr << "corvid-outpost: cannot read the kernel audit rules\n";
        return 1;
    }
    std::cout << "corvid-outpost: removed " << *removed << " audit rules left by corvid-edr" << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    vantor::tools::StandInAgent::Options options;
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h"))
    {
        Usage(std::cout);
        return 0;
    }
    if (argc == 2 && std::string(argv[1]) == "--version")
    {
        // The agent and the daemon are built and shipped together.
        std::cout << "corvid-outpost " << CORVID_VERSION << " (stand-in agent of corvid-edr "
                  << CORVID_VERSION << ")" << std::endl;
        return 0;
    }
    if (argc == 3 && std::string(argv[1]) == "--check-config")
    {
        return CheckConfig(argv[2]);
    }
    if (argc == 2 && std::string(argv[1]) == "--remove-rules")
    {
        return RemoveRules();
    }
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
                Usage(std::cerr);
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
            Usage(std::cerr);
            return 2;
        }
    }
    if (options.configFile.empty())
    {
        Usage(std::cerr);
        return 2;
    }
    return vantor::tools::StandInAgent(std::move(options)).Run();
}
