#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace vantor::common
{

class SynchronizedQueueException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A queue of shared elements between threads. Consumers check Size() or wait
// with WaitForData() (or WaitForMore()) before taking. A consumer waits only
// on an empty queue, so only the push that ends the emptiness signals: a
// producer pushing one element per event does not pay a wake-up per event.
template <typename T>
class SynchronizedQueue
{
public:
    using Element = std::shared_ptr<T>;

    void Push(Element element) { TryPush(std::move(element), std::numeric_limits<size_t>::max()); }

    // Pushes unless the queue already holds capacity elements; the check
    // and the push are one step under the lock.
    bool TryPush(Element element, size_t capacity)
    {
        return PushWhenRoom(std::move(element), capacity, std::chrono::nanoseconds::zero());
    }

    // Pushes once the queue holds fewer than capacity elements, waiting at
    // most the time-out for a consumer to take some; answers whether it
    // pushed (the element is dropped otherwise).
    template <typename Rep, typename Period>
    bool PushWhenRoom(Element element, size_t capacity, std::chrono::duration<Rep, Period> timeout)
    {
        bool wake = false;
        {
            std::unique_lock lock(m_mutex);
            if (m_queue.size() >= capacity)
            {
                if (timeout <= timeout.zero())
                {
                    return false;
                }
                ++m_waitingForRoom;
                m_room.wait_for(lock, timeout, [&] { return m_queue.size() < capacity; });
                --m_waitingForRoom;
                if (m_queue.size() >= capacity)
                {
                    return false;
                }
            }
            // A busy consumer (WaitForMore) is woken by the element that
            // makes its batch, an idle one by the first.
            wake = m_lingerFor > 0 ? m_queue.size() + 1 == m_lingerFor : m_queue.empty();
            m_queue.push_back(std::move(element));
        }
        if (wake)
        {
            m_cv.notify_one();
        }
        return true;
    }

    Element Pop()
    {
        Element e;
        bool producersWait = false;
        {
            std::lock_guard lock(m_mutex);
            if (m_queue.empty())
            {
                throw SynchronizedQueueException("Cannot pop from an empty SynchronizedQueue");
            }
            e = std::move(m_queue.front());
            m_queue.pop_front();
            producersWait = m_waitingForRoom > 0;
        }
        WakeProducersIf(producersWait);
        return e;
    }

    std::deque<Element> PopAll()
    {
        std::deque<Element> all;
        bool producersWait = false;
        {
            std::lock_guard lock(m_mutex);
            if (m_queue.empty())
            {
                throw SynchronizedQueueException("Cannot pop all from an empty SynchronizedQueue");
            }
            all.swap(m_queue);
            producersWait = m_waitingForRoom > 0;
        }
        WakeProducersIf(producersWait);
        return all;
    }

    size_t Size() const
    {
        std::lock_guard lock(m_mutex);
        return m_queue.size();
    }

    // Waits until the queue holds an element, Wake() is called or the time-out
    // passes; answers whether an element is there.
    template <typename Rep, typename Period>
    bool WaitForData(std::chrono::duration<Rep, Period> timeout)
    {
        std::unique_lock lock(m_mutex);
        m_cv.wait_for(lock, timeout, [this] { return !m_queue.empty() || m_woken; });
        m_woken = false;
        return !m_queue.empty();
    }

    // Like WaitForData, for a consumer that has just taken a batch and
    // expects more: it is woken when the queue holds batch elements (or by
    // Wake() or the time-out), so that a steady stream of pushes costs a
    // wake-up per batch or per time-out instead of one each time the
    // consumer has caught up. Answers whether an element is there.
    template <typename Rep, typename Period>
    bool WaitForMore(std::chrono::duration<Rep, Period> timeout, size_t batch)
    {
        std::unique_lock lock(m_mutex);
        m_lingerFor = batch > 0 ? batch : 1;
        m_cv.wait_for(lock, timeout, [this] { return m_queue.size() >= m_lingerFor || m_woken; });
        m_lingerFor = 0;
        m_woken = false;
        return !m_queue.empty();
    }

    void Wake()
    {
        {
            std::lock_guard lock(m_mutex);
            m_woken = true;
        }
        m_cv.notify_all();
    }

private:
    // After a take, outside the lock: producers wait for room only on a full
    // queue, so a take wakes them only when one waits.
    void WakeProducersIf(bool producersWait)
    {
        if (producersWait)
        {
            m_room.notify_all();
        }
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    // Producers waiting for room (PushWhenRoom).
    std::condition_variable m_room;
    size_t m_waitingForRoom = 0;
    std::deque<Element> m_queue;
    bool m_woken = false;
    // While a consumer waits in WaitForMore: the size that wakes it.
    size_t m_lingerFor = 0;
};

} // namespace vantor::common
