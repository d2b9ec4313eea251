#pragma once

// Counts a soak run's workload against what the receiver got, by what the
// daemon owes. A kill -9 takes with it what the daemon held only in memory
// (audit records not yet turned into documents, documents and IOC events
// cached for the spool up to the spool's file age); what it had written to a
// spool file must arrive. So an operation is owed when its FIM document (or,
// for a marked process, the IOC event of its start) was in a spool file on
// disk after one of the kills, or when it began after the last restart (no
// kill follows it; the run drains the spools before counting). A daemon is
// taken to capture from kCaptureGrace after it reported itself running.
// What is missing but not owed is told apart by when it began: while the
// daemon was down or starting, or in a life that a kill ended (then how long
// before the kill, which the memory window bounds).
//
// Whatever arrives more than once is a duplicate, owed or not, but for one
// case: a spool file is deleted only once the receiver has answered, so a
// kill between the receiver storing an upload and the daemon deleting the
// file makes the next daemon send it again. A copy counts as such a resend
// when the receiver had stored the same document (batch) before a kill
// after which it was still on disk. IOC batch numbers must run without gaps,
// and no number may name two different batches.
//
// Not thread-safe.

#include "tests/support/SoakWorkload.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace vantor::test
{

class SoakTally
{
public:
    static constexpr int64_t kCaptureGrace = 1000000000;

    // A daemon reported itself running at time (CLOCK_REALTIME ns).
    void Started(int64_t time);
    // The daemon started last was killed at time and is dead: takes the
    // spool files it left (FIM files hold {"events": [...]}, IOC files one
    // batch each).
    void Killed(int64_t time, const std::string& fimDir, const std::string& iocDir);
    // Takes the receiver's stored uploads in dir (*.payload, *.ioc), each
    // received at its file's modification time.
    void AddReceived(const std::string& dir);

    // Writes the summary; answers whether nothing owed was lost and nothing
    // but resends arrived twice.
    bool Report(const std::vector<SoakWorkload::Operation>& journal, std::ostream& out) const;

private:
    // Whether every copy but the last was followed by a kill after which
    // the item was still on disk.
    bool Resent(const std::string& key) const;

    // Life i runs from m_starts[i] to m_kills[i]; the last one is not killed.
    std::vector<int64_t> m_starts;
    std::vector<int64_t> m_kills;
    // Items by key ("fim <action> <path>", "start <pid> <image>",
    // "batch <number> <content hash>"): the kills after which they were on
    // disk, the times they were received.
    std::map<std::string, std::vector<int64_t>> m_onDisk;
    std::map<std::string, std::vector<int64_t>> m_receipts;
    std::set<uint64_t> m_spooledNumbers;
    // Received batch numbers with the content hashes of their batches.
    std::map<uint64_t, std::set<size_t>> m_numbers;
    size_t m_unreadableSpool = 0;
    size_t m_unreadableReceived = 0;
};

} // namespace vantor::test
