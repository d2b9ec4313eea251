#include "common/SignalHandler.h"

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <stdexcept>
#include <string>

namespace vantor::common
{

namespace
{
void Mask(int how, std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (int s : signals)
    {
        sigaddset(&set, s);
    }
    const int rc = pthread_sigmask(how, &set, nullptr);
    if (rc != 0)
    {
        throw std::runtime_error(std::string("pthread_sigmask failed: ") + std::strerror(rc));
    }
}

void SetAction(int signal, SignalHandler::Handler handler)
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    if (sigaction(signal, &action, nullptr) != 0)
    {
        throw std::runtime_error(std::string("sigaction failed: ") + std::strerror(errno));
    }
}
} // namespace

void SignalHandler::Block(std::initializer_list<int> signals)
{
    Mask(SIG_BLOCK, signals);
}

void SignalHandler::Unblock(std::initializer_list<int> signals)
{
    Mask(SIG_UNBLOCK, signals);
}

void SignalHandler::Install(int signal, Handler handler)
{
    if (handler == nullptr)
    {
        throw std::runtime_error("null signal handler supplied");
    }
    SetAction(signal, handler);
}

void SignalHandler::Ignore(int signal)
{
    SetAction(signal, SIG_IGN);
}

} // namespace vantor::common
