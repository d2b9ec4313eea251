#pragma once

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace vantor::common
{

class CircularBufferException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A fixed-capacity ring. An overwriting buffer drops its oldest element when
// full; a non-overwriting one refuses the insert.
template <typename T>
class CircularBuffer
{
public:
    explicit CircularBuffer(size_t capacity, bool overwrite = true)
        : m_items(capacity)
        , m_overwrite(overwrite)
    {
        if (capacity == 0)
        {
            throw CircularBufferException("Circular buffer capacity cannot be 0");
        }
    }

    void Insert(const T& value)
    {
        if (Full())
        {
            if (!m_overwrite)
            {
                throw CircularBufferException("Cannot insert into a full Circular buffer");
            }
            Pop();
        }
        m_items[(m_head + m_size) % m_items.size()] = value;
        ++m_size;
    }

    T Pop()
    {
        if (Empty())
        {
            throw CircularBufferException("Cannot pop from an empty Circular buffer");
        }
        T value = m_items[m_head];
        m_head = (m_head + 1) % m_items.size();
        --m_size;
        return value;
    }

    const T& Front() const
    {
        if (Empty())
        {
            throw CircularBufferException("Cannot pop from an empty Circular buffer");
        }
        return m_items[m_head];
    }

    // Element i counted from the oldest.
    const T& At(size_t i) const { return m_items[(m_head + i) % m_items.size()]; }

    size_t Size() const { return m_size; }
    size_t Capacity() const { return m_items.size(); }
    bool Empty() const { return m_size == 0; }
    bool Full() const { return m_size == m_items.size(); }

private:
    std::vector<T> m_items;
    bool m_overwrite;
    size_t m_head = 0;
    size_t m_size = 0;
};

} // namespace vantor::common
