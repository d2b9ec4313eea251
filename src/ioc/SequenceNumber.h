#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace vantor::common
{
class SqlStorage;
}

namespace vantor::ioc::internal
{

// The number of the last event batch handed to the spool, kept in the
// "SequenceNumber" row of the snapshot database's "ClientInformation" so
// that numbering goes on after a restart. Batches are numbered from 1, so
// the number starts at 0 when the row is missing (a new database) and the
// row is written then.
//
// Thread-safe; the storage must outlive the object.
class SequenceNumber
{
public:
    static constexpr uint64_t kStart = 0;

    // Reads the row. A row that cannot be read, or whose value is not an
    // unsigned decimal number, logs "Error in reading sequence number" and
    // starts at kStart; a number of 2^64 or more throws std::runtime_error
    // "ioc::component: sequence number out of range.".
    explicit SequenceNumber(common::SqlStorage& snapshot);

    uint64_t Current() const;
    // Goes on from value when it is ahead: a batch is spooled before its
    // number is stored, so a crash between the two leaves the newest spooled
    // batch one ahead of the row, and numbering from the row would give its
    // number again. Logged and stored when it raises the number.
    void AtLeast(uint64_t value);
    // Counts one more batch and writes the number back; answers it. A failed
    // write is logged; the number in memory goes on.
    uint64_t Next();

private:
    void Store(uint64_t value);

    common::SqlStorage& m_snapshot;
    mutable std::mutex m_mutex;
    uint64_t m_value = kStart;
};

} // namespace vantor::ioc::internal
