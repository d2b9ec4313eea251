#pragma once

// Child processes of a test: waiting for them, stopping them, running a
// program to its end.

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::test
{

// Waits for a child of ours; answers its exit status (128 + signal when a
// signal ended it), -1 when it still runs after timeout.
int WaitForChild(pid_t pid, std::chrono::milliseconds timeout);
// SIGTERM, then SIGKILL after grace; a child that is gone is left alone.
void StopChild(pid_t pid, std::chrono::milliseconds grace);
// Runs a program (argv[0] is its path) to its end, failing the test unless it
// succeeds within five seconds; answers its pid.
pid_t RunProgram(std::vector<std::string> argv);

} // namespace vantor::test
