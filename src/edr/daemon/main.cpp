#include "edr/daemon/Daemon.h"

int main()
{
    // There is no command line: every setting comes from the host agent.
    return vantor::edr::Daemon().Run();
}
