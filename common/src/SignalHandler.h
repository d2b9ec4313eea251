#pragma once

#include <csignal>
#include <initializer_list>

namespace vantor::common
{

// The process's signal policy: blocking sets in the calling thread and
// installing handlers with sigaction.
class SignalHandler
{
public:
    using Handler = void (*)(int);

    static void Block(std::initializer_list<int> signals);
    static void Unblock(std::initializer_list<int> signals);
    // Installs a handler with an empty mask and no flags; a null handler
    // throws std::runtime_error "null signal handler supplied".
    static void Install(int signal, Handler handler);
    static void Ignore(int signal);
};

} // namespace vantor::common
