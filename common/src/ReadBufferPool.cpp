#include "common/ReadBufferPool.h"

#include <mutex>

namespace vantor::common
{

namespace
{

// Reads of the channels are at most 64 KiB; a larger buffer is somebody
// else's and is not worth keeping.
constexpr size_t kMinCapacity = 16 * 1024;
constexpr size_t kMaxCapacity = 256 * 1024;

struct Pool
{
    Pool() { spares.reserve(ReadBufferPool::kMaxSpares); }

    std::mutex mutex;
    std::vector<std::vector<uint8_t>> spares;
};

Pool& Instance()
{
    static Pool pool;
    return pool;
}

} // namespace

std::vector<uint8_t> ReadBufferPool::Take(size_t capacity)
{
    std::vector<uint8_t> buffer;
    {
        Pool& pool = Instance();
        std::lock_guard lock(pool.mutex);
        if (!pool.spares.empty() && pool.spares.back().capacity() >= capacity)
        {
            buffer = std::move(pool.spares.back());
            pool.spares.pop_back();
        }
    }
    buffer.clear();
    buffer.reserve(capacity);
    return buffer;
}

void ReadBufferPool::Give(std::vector<uint8_t> buffer)
{
    if (buffer.capacity() < kMinCapacity || buffer.capacity() > kMaxCapacity)
    {
        return;
    }
    Pool& pool = Instance();
    std::lock_guard lock(pool.mutex);
    if (pool.spares.size() < kMaxSpares)
    {
        pool.spares.push_back(std::move(buffer));
    }
    // A buffer not kept is freed with the parameter, after the lock.
}

size_t ReadBufferPool::Spares()
{
    Pool& pool = Instance();
    std::lock_guard lock(pool.mutex);
    return pool.spares.size();
}

} // namespace vantor::common
