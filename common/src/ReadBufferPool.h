#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vantor::common
{

// Spare read buffers handed back by the thread that consumed them, so that
// a busy channel reuses warm memory instead of allocating (and faulting in)
// a fresh chunk for every full read while the consumer frees the last one
// into the reader's malloc arena.
//
// Only buffers of the channels' full read size are kept, at most kMaxSpares
// of them: the pool never holds more than a few chunks, and a buffer that
// a small read fills stays exactly its size.
//
// Thread-safe.
class ReadBufferPool
{
public:
    static constexpr size_t kMaxSpares = 4;

    // A buffer with room for capacity bytes (a spare if one is that large),
    // empty.
    static std::vector<uint8_t> Take(size_t capacity);
    // Keeps the buffer for a later Take when it is of a reusable size and
    // the pool has room; frees it otherwise.
    static void Give(std::vector<uint8_t> buffer);
    // How many spares are kept now.
    static size_t Spares();
};

} // namespace vantor::common
