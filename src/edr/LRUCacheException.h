#pragma once

#include <stdexcept>

namespace vantor::edr
{

// Raised by LRUCache::Get for a key the cache does not hold.
class LRUCacheException : public std::out_of_range
{
public:
    LRUCacheException()
        : std::out_of_range("Accessing key failed from cache memory")
    {
    }
};

} // namespace vantor::edr
