// corvid-test-receiver: a local HTTPS upload receiver for manual runs and
// demos. Prints its URL and the CA file that clients must trust, then serves
// until SIGINT or SIGTERM.
#include "common/HmacRequestSigner.h"
#include "tools/TestReceiver.h"

#include <Poco/TemporaryFile.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

namespace
{

void Usage(std::ostream& out)
{
    out << "usage: corvid-test-receiver --output DIR [--port N] [--cert-dir DIR] [--hmac-key-file FILE]\n"
           "         [--customer-id ID] [--agent-id ID] [--fail N] [--fail-status S]\n"
           "         [--stall N] [--stall-ms MS] [--drop-csrv N] [--bad-signature N]\n"
           "         [--request-log FILE] [--print-ioc]\n"
           "         [--hostile none|trickle|hang|lzma-bomb|reset|wrong-host]\n"
           "       corvid-test-receiver --help | --version\n"
           "  Prints one line per request: \"request: METHOD PATH STATUS SIZE bytes\", then what a\n"
           "  stored payload held or why the request was refused.\n"
           "  --print-ioc prints every stored IOC event batch, one line per event\n"
           "  --hostile answers every upload in a hostile way and stores nothing: trickle, hang\n"
           "  (half a body), lzma-bomb, reset (RST), wrong-host (a certificate for another name)\n";
}

} // namespace

int main(int argc, char** argv)
{
    vantor::tools::TestReceiver::Options options;
    options.printRequests = true;
    unsigned fail = 0;
    int failStatus = 503;
    unsigned stall = 0;
    unsigned stallMs = 0;
    unsigned drop = 0;
    unsigned badSignature = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
        {
            Usage(std::cout);
            return 0;
        }
        if (arg == "--version")
        {
            std::cout << "corvid-test-receiver " << CORVID_VERSION << std::endl;
            return 0;
        }
        if (arg == "--print-ioc")
        {
            options.printIocEvents = true;
            continue;
        }
        if (i + 1 >= argc)
        {
            Usage(std::cerr);
            return 2;
        }
        const std::string value = argv[++i];
        try
        {
            if (arg == "--output")
                options.outputDir = value;
            else if (arg == "--port")
                options.port = static_cast<uint16_t>(std::stoul(value));
            else if (arg == "--cert-dir")
                options.certDir = value;
            else if (arg == "--hmac-key-file")
                options.hmacKey = vantor::common::HmacRequestSigner::ReadKeyFile(value);
            else if (arg == "--customer-id")
                options.customerId = value;
            else if (arg == "--agent-id")
                options.agentId = value;
            else if (arg == "--fail")
                fail = static_cast<unsigned>(std::stoul(value));
            else if (arg == "--fail-status")
                failStatus = std::stoi(value);
            else if (arg == "--stall")
                stall = static_cast<unsigned>(std::stoul(value));
            else if (arg == "--stall-ms")
                stallMs = static_cast<unsigned>(std::stoul(value));
            else if (arg == "--drop-csrv")
                drop = static_cast<unsigned>(std::stoul(value));
            else if (arg == "--bad-signature")
                badSignature = static_cast<unsigned>(std::stoul(value));
            else if (arg == "--request-log")
                options.requestLog = value;
            else if (arg == "--hostile")
                options.hostility = vantor::tools::HostileAnswer::Parse(value);
            else
            {
                Usage(std::cerr);
                return 2;
            }
        }
        catch (const std::exception& e)
        {
            std::cerr << "corvid-test-receiver: invalid value for " << arg << ": " << e.what() << "\n";
            return 2;
        }
    }
    if (options.outputDir.empty())
    {
        Usage(std::cerr);
        return 2;
    }
    if (options.certDir.empty())
    {
        options.certDir = Poco::TemporaryFile::tempName();
        std::filesystem::create_directories(options.certDir);
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try
    {
        std::filesystem::create_directories(options.outputDir);
        vantor::tools::TestReceiver receiver(options);
        receiver.FailNext(fail, failStatus);
        receiver.StallNext(stall, std::chrono::milliseconds(stallMs));
        receiver.DropServerHeaderNext(drop);
        receiver.BadSignatureNext(badSignature);
        receiver.Start();
        std::cout << "url: " << receiver.Url() << "\n"
                  << "ca: " << receiver.Certificate().certPath << "\n"
                  << "public_key: " << receiver.Certificate().publicKeyPath
                  << "\n"
                  // IOC's service_url (or gateway_url): the daemon adds
                  // /linuxagentevent/v1/customer/<c>/agent/<a> itself.
                  << "ioc_service_url: " << receiver.Url("") << std::endl;
        int received = 0;
        sigwait(&signals, &received);
        receiver.Stop();
        std::cout << "stored: " << receiver.StoredCount() << "\n"
                  << "ioc sequence errors: " << receiver.IocSequenceErrors() << std::endl;
    }
    catch (const std::exception& e)
    {
        std::cerr << "corvid-test-receiver: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
