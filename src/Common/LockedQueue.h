#pragma once

#include <cstddef>
#include <deque>

#include "Common/Mutex.h"

/// A first-in-first-out queue of values.
///
/// Threading: any operation from any thread; nothing blocks but on the queue's own lock, which is
/// never held while anything of the caller's runs but T's copy.
template <typename T>
class LockedQueue {
  public:
    LockedQueue() = default;
    virtual ~LockedQueue() = default;
    LockedQueue(const LockedQueue&) = delete;
    LockedQueue& operator=(const LockedQueue&) = delete;

    bool IsEmpty() const {
        opal::RecursiveLock lock(m_mutex);
        return m_values.empty();
    }

    size_t Size() const {
        opal::RecursiveLock lock(m_mutex);
        return m_values.size();
    }

    void Push(const T& value) {
        opal::RecursiveLock lock(m_mutex);
        m_values.push_back(value);
    }

    /// False, with `value` untouched, when the queue is empty.
    bool Pop(T& value) {
        opal::RecursiveLock lock(m_mutex);
        if (m_values.empty())
            return false;
        value = m_values.front();
        m_values.pop_front();
        return true;
    }

  private:
    mutable opal::RecursiveMutex m_mutex;
    std::deque<T> m_values OPAL_GUARDED_BY(m_mutex);
};
