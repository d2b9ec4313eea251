#pragma once

// The steady workload of a soak run, in a child process of its own so that
// the run can kill and restart the daemon meanwhile. Each round creates a
// file under the watched directory, writes it, renames it and deletes it,
// every name used once; every markEvery rounds it also runs a copy of
// /usr/bin/true made under a new name outside the watched tree (a "marked"
// process, whose start IOC reports because its executable is new).
//
// Every operation that succeeded is appended to the journal, one line each,
// the time taken just before the operation began:
//   <CLOCK_REALTIME ns> create|modifyContent|rename|delete <path>
//   <CLOCK_REALTIME ns> mark <pid> <image>
// A rename is named by its old path, as its FIM document is.
//
// Not thread-safe; Stop or the destructor ends the child.

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::test
{

class SoakWorkload
{
public:
    struct Options
    {
        std::string watched;
        std::string markDir;
        std::string journal;
        std::chrono::milliseconds pause{200};
        int markEvery = 5;
    };

    struct Operation
    {
        int64_t time = 0;   // CLOCK_REALTIME ns
        std::string action; // a FIM action word, or "mark"
        std::string path;   // the file, or the marked process's image
        long long pid = -1; // marked processes
    };

    explicit SoakWorkload(Options options);
    ~SoakWorkload();
    SoakWorkload(const SoakWorkload&) = delete;
    SoakWorkload& operator=(const SoakWorkload&) = delete;

    // Ends the loop after its current round and waits for the child.
    void Stop();

    static std::vector<Operation> ReadJournal(const std::string& path);
    static int64_t Now();

private:
    pid_t m_pid = -1;
    int m_stop = -1;
};

} // namespace vantor::test
