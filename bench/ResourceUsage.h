#pragma once

#include <malloc.h>
#include <sys/resource.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

namespace vantor::bench
{

// What the process has used so far, from getrusage: every thread's CPU
// (user + system), its voluntary context switches and the peak resident set;
// and the heap bytes in use now (mallinfo2).
struct ResourceUsage
{
    static double CpuSeconds()
    {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }

    // The process's CPU clock: finer than getrusage, for short runs.
    static double ProcessCpuSeconds()
    {
        timespec ts{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
    }

    // Times a thread of the process gave up the CPU to wait (sleeps, wakes).
    static uint64_t VoluntarySwitches()
    {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<uint64_t>(usage.ru_nvcsw);
    }

    static std::size_t HeapInUse() { return mallinfo2().uordblks; }

    static uint64_t PeakRssKb()
    {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<uint64_t>(usage.ru_maxrss);
    }
};

} // namespace vantor::bench
