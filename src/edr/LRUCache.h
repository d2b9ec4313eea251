#pragma once

#include "edr/LRUCacheException.h"

#include <cstddef>
#include <functional>
#include <list>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace vantor::edr
{

// A key-value cache that forgets its least recently used key once it is
// full. Get, Find and Put are O(1): a list keeps the use order (most recent
// first) and owns each key and value; a hash map finds the list node by a
// reference to the key the node holds, so a key is stored once and a lookup
// allocates nothing.
//
// Full means holding Capacity() x kEvictionFactor keys, not Capacity(): the
// cache serves counters of repeated behaviour, and a counter evicted before
// its behaviour repeats often enough is worthless. With the nominal capacity
// as the bound, a busy host's many short-lived lineages would push every
// counter out within minutes; 32 times the capacity keeps a day of
// behaviours of a busy host while memory stays bounded.
//
// Not thread-safe: its owner guards it.
template <typename Key, typename Value, typename Hash = std::hash<Key>, typename Equal = std::equal_to<Key>>
class LRUCache
{
public:
    static constexpr size_t kEvictionFactor = 32;

    // Throws std::invalid_argument "LRUCache: 'capacity' cannot be 0".
    explicit LRUCache(size_t capacity)
        : m_capacity(capacity)
    {
        if (capacity == 0)
        {
            throw std::invalid_argument("LRUCache: 'capacity' cannot be 0");
        }
    }

    LRUCache(const LRUCache&) = delete;
    LRUCache& operator=(const LRUCache&) = delete;

    size_t Capacity() const { return m_capacity; }
    // The number of keys at which Put evicts before it inserts.
    size_t EvictionThreshold() const { return m_capacity * kEvictionFactor; }
    size_t Size() const { return m_index.size(); }
    bool Contains(const Key& key) const { return m_index.count(std::cref(key)) != 0; }

    // The value of key, now the most recently used; nullptr when absent.
    Value* Find(const Key& key)
    {
        const auto it = m_index.find(std::cref(key));
        if (it == m_index.end())
        {
            return nullptr;
        }
        m_order.splice(m_order.begin(), m_order, it->second);
        return &it->second->second;
    }

    // As Find; throws LRUCacheException for an absent key.
    Value& Get(const Key& key)
    {
        Value* value = Find(key);
        if (value == nullptr)
        {
            throw LRUCacheException();
        }
        return *value;
    }

    // Sets the value of key and makes it the most recently used. A new key
    // first evicts the least recently used one when the cache is full.
    Value& Put(const Key& key, Value value)
    {
        if (Value* existing = Find(key))
        {
            *existing = std::move(value);
            return *existing;
        }
        return PutAbsent(Key(key), std::move(value));
    }

    // Put for a key known to be absent (Find just answered nullptr): spares
    // a second lookup and takes the key without a copy.
    Value& PutAbsent(Key&& key, Value value)
    {
        if (m_index.size() >= EvictionThreshold())
        {
            m_index.erase(std::cref(m_order.back().first));
            m_order.pop_back();
        }
        m_order.emplace_front(std::move(key), std::move(value));
        m_index.emplace(std::cref(m_order.front().first), m_order.begin());
        return m_order.front().second;
    }

    void Clear()
    {
        m_index.clear();
        m_order.clear();
    }

private:
    using Node = std::pair<const Key, Value>;
    using Order = std::list<Node>;
    using KeyRef = std::reference_wrapper<const Key>;

    struct RefHash
    {
        size_t operator()(KeyRef key) const { return Hash()(key.get()); }
    };
    struct RefEqual
    {
        bool operator()(KeyRef a, KeyRef b) const { return Equal()(a.get(), b.get()); }
    };

    const size_t m_capacity;
    Order m_order;
    std::unordered_map<KeyRef, typename Order::iterator, RefHash, RefEqual> m_index;
};

} // namespace vantor::edr
