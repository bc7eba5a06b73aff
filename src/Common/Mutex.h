#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

// What clang's -Wthread-safety checks at compile time; other compilers see nothing. A field says
// which lock guards it, a function which lock its caller holds or must not hold.
#if defined(__clang__)
#define OPAL_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define OPAL_THREAD_SAFETY(attribute)
#endif

#define OPAL_CAPABILITY(name) OPAL_THREAD_SAFETY(capability(name))
#define OPAL_SCOPED_CAPABILITY OPAL_THREAD_SAFETY(scoped_lockable)
#define OPAL_GUARDED_BY(lock) OPAL_THREAD_SAFETY(guarded_by(lock))
#define OPAL_PT_GUARDED_BY(lock) OPAL_THREAD_SAFETY(pt_guarded_by(lock))
#define OPAL_ACQUIRED_BEFORE(...) OPAL_THREAD_SAFETY(acquired_before(__VA_ARGS__))
#define OPAL_ACQUIRED_AFTER(...) OPAL_THREAD_SAFETY(acquired_after(__VA_ARGS__))
#define OPAL_REQUIRES(...) OPAL_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define OPAL_REQUIRES_SHARED(...) OPAL_THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
#define OPAL_EXCLUDES(...) OPAL_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define OPAL_ACQUIRE(...) OPAL_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define OPAL_ACQUIRE_SHARED(...) OPAL_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define OPAL_RELEASE(...) OPAL_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define OPAL_RELEASE_SHARED(...) OPAL_THREAD_SAFETY(release_shared_capability(__VA_ARGS__))
#define OPAL_TRY_ACQUIRE(...) OPAL_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define OPAL_ASSERT_CAPABILITY(lock) OPAL_THREAD_SAFETY(assert_capability(lock))
#define OPAL_RETURN_CAPABILITY(lock) OPAL_THREAD_SAFETY(lock_returned(lock))
/// Each use says why the compiler cannot follow.
#define OPAL_NO_THREAD_SAFETY_ANALYSIS OPAL_THREAD_SAFETY(no_thread_safety_analysis)

namespace opal {

/// A mutex of the standard library or of Boost whose use the compiler checks. Prefer the scoped
/// locks below to Lock and Unlock.
template <typename Native>
class OPAL_CAPABILITY("mutex") BasicMutex {
  public:
    BasicMutex() = default;
    BasicMutex(const BasicMutex&) = delete;
    BasicMutex& operator=(const BasicMutex&) = delete;

    void Lock() OPAL_ACQUIRE() { m_native.lock(); }
    void Unlock() OPAL_RELEASE() { m_native.unlock(); }
    bool TryLock() OPAL_TRY_ACQUIRE(true) { return m_native.try_lock(); }
    /// Tells the compiler, and does nothing: for callbacks and lambdas that run under a lock which
    /// the compiler cannot see from there.
    void AssertHeld() const OPAL_ASSERT_CAPABILITY(this) {}
    Native& GetNative() { return m_native; }

  private:
    Native m_native;
};

using Mutex = BasicMutex<std::mutex>;
/// Only where the thread that holds it must be able to take it again: a session's lock, which
/// callbacks come back to, and the locks of the objects whose public operations call one another.
using RecursiveMutex = BasicMutex<boost::recursive_mutex>;

/// Many readers or one writer.
class OPAL_CAPABILITY("mutex") SharedMutex {
  public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void Lock() OPAL_ACQUIRE() { m_native.lock(); }
    void Unlock() OPAL_RELEASE() { m_native.unlock(); }
    void LockShared() OPAL_ACQUIRE_SHARED() { m_native.lock_shared(); }
    void UnlockShared() OPAL_RELEASE_SHARED() { m_native.unlock_shared(); }

  private:
    std::shared_mutex m_native;
};

struct DeferLock {};
struct AdoptLock {};

/// Holds a lock for a scope. It may let go within the scope and take the lock again.
template <typename AnyMutex>
class OPAL_SCOPED_CAPABILITY ScopedLock {
  public:
    explicit ScopedLock(AnyMutex& mutex) OPAL_ACQUIRE(mutex) : m_mutex(mutex) { Lock(); }
    /// Begins without the lock.
    ScopedLock(AnyMutex& mutex, DeferLock) OPAL_EXCLUDES(mutex) : m_mutex(mutex) {}
    /// Takes over a lock that the caller holds.
    ScopedLock(AnyMutex& mutex, AdoptLock) OPAL_REQUIRES(mutex) : m_mutex(mutex), m_held(true) {}
    ~ScopedLock() OPAL_RELEASE() {
        if (m_held)
            m_mutex.Unlock();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void Lock() OPAL_ACQUIRE() {
        m_mutex.Lock();
        m_held = true;
    }
    void Unlock() OPAL_RELEASE() {
        m_mutex.Unlock();
        m_held = false;
    }
    bool TryLock() OPAL_TRY_ACQUIRE(true) {
        m_held = m_mutex.TryLock();
        return m_held;
    }

  private:
    AnyMutex& m_mutex;
    bool m_held = false;
};

using MutexLock = ScopedLock<Mutex>;
using RecursiveLock = ScopedLock<RecursiveMutex>;
using ExclusiveLock = ScopedLock<SharedMutex>;

/// The reverse: lets go of a lock that is held, once, for a scope.
template <typename AnyMutex>
class OPAL_SCOPED_CAPABILITY ScopedUnlock {
  public:
    explicit ScopedUnlock(AnyMutex& mutex) OPAL_RELEASE(mutex) : m_mutex(mutex) {
        m_mutex.Unlock();
    }
    ~ScopedUnlock() OPAL_RELEASE() { m_mutex.Lock(); }
    ScopedUnlock(const ScopedUnlock&) = delete;
    ScopedUnlock& operator=(const ScopedUnlock&) = delete;

  private:
    AnyMutex& m_mutex;
};

using MutexUnlock = ScopedUnlock<Mutex>;
using RecursiveUnlock = ScopedUnlock<RecursiveMutex>;

/// Holds a SharedMutex as one of many readers.
class OPAL_SCOPED_CAPABILITY SharedLock {
  public:
    explicit SharedLock(SharedMutex& mutex) OPAL_ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
        m_mutex.LockShared();
    }
    ~SharedLock() OPAL_RELEASE() { m_mutex.UnlockShared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

  private:
    SharedMutex& m_mutex;
};

/// A condition under a Mutex. A wait may end without a notification, so it stands in a loop that
/// tests the condition; the loop is written out, for the compiler does not look into a predicate.
class CondVar {
  public:
    void Wait(Mutex& mutex) OPAL_REQUIRES(mutex) {
        Adopted lock(mutex);
        m_native.wait(lock.native);
    }
    /// False when the time is over.
    template <typename Rep, typename Period>
    bool WaitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& time)
        OPAL_REQUIRES(mutex) {
        Adopted lock(mutex);
        return m_native.wait_for(lock.native, time) == std::cv_status::no_timeout;
    }
    template <typename TimeClock, typename Duration>
    bool WaitUntil(Mutex& mutex, const std::chrono::time_point<TimeClock, Duration>& time)
        OPAL_REQUIRES(mutex) {
        Adopted lock(mutex);
        return m_native.wait_until(lock.native, time) == std::cv_status::no_timeout;
    }
    void NotifyOne() { m_native.notify_one(); }
    void NotifyAll() { m_native.notify_all(); }

  private:
    /// The caller's lock in the form that the standard's condition takes, and the caller's still.
    struct Adopted {
        explicit Adopted(Mutex& mutex) : native(mutex.GetNative(), std::adopt_lock) {}
        ~Adopted() { native.release(); }
        std::unique_lock<std::mutex> native;
    };

    std::condition_variable m_native;
};

/// A condition under a RecursiveMutex, which the waiting thread must hold exactly once: a wait
/// releases one level only.
class RecursiveCondVar {
  public:
    void Wait(RecursiveMutex& mutex) OPAL_REQUIRES(mutex) { m_native.wait(mutex.GetNative()); }
    void NotifyOne() { m_native.notify_one(); }
    void NotifyAll() { m_native.notify_all(); }

  private:
    boost::condition_variable_any m_native;
};

}  // namespace opal
