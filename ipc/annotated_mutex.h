// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <mutex>
#include <thread>

// Mutexes that clang checks: which members may be touched with which mutex held stands at the
// members, and a build with -Wthread-safety refuses whoever touches them without. The standard
// library's own mutex has no such annotations. Other compilers see none of this.
//
//   class Counter {
//       int add() {
//           const Guard guard(mutex_);
//           return ++count_;
//       }
//       Mutex mutex_;
//       int count_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
//   };
//
// A predicate that is called with a mutex held is a function of its own for the checker, and says
// so: [this]() ZAV_SHM_REQUIRES(mutex_) { return count_ > 0; }

#if defined(__clang__)
#define ZAV_SHM_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ZAV_SHM_THREAD_SAFETY(attribute)
#endif

/// Of classes: something that is held, and something that holds it as long as it lives.
#define ZAV_SHM_CAPABILITY ZAV_SHM_THREAD_SAFETY(capability("mutex"))
#define ZAV_SHM_SCOPED_CAPABILITY ZAV_SHM_THREAD_SAFETY(scoped_lockable)

/// Of members.
#define ZAV_SHM_GUARDED_BY(mutex) ZAV_SHM_THREAD_SAFETY(guarded_by(mutex))

/// Of functions: the caller has to hold the mutex; it must not; they take it or give it back.
#define ZAV_SHM_REQUIRES(mutex) ZAV_SHM_THREAD_SAFETY(requires_capability(mutex))
#define ZAV_SHM_EXCLUDES(mutex) ZAV_SHM_THREAD_SAFETY(locks_excluded(mutex))
#define ZAV_SHM_TRY_ACQUIRE(...) ZAV_SHM_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define ZAV_SHM_ACQUIRE(...) ZAV_SHM_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define ZAV_SHM_RELEASE(...) ZAV_SHM_THREAD_SAFETY(release_capability(__VA_ARGS__))

/// Of functions that are right for another reason, which is told beside it.
#define ZAV_SHM_UNCHECKED ZAV_SHM_THREAD_SAFETY(no_thread_safety_analysis)

namespace zav_shm {

class ZAV_SHM_CAPABILITY Mutex {
public:
    void lock() ZAV_SHM_ACQUIRE() { mutex_.lock(); }
    void unlock() ZAV_SHM_RELEASE() { mutex_.unlock(); }
    bool try_lock() ZAV_SHM_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    friend class Waiting_Guard;

    std::mutex mutex_;
};

/// Holds a mutex, of whatever kind, as long as it lives.
template <class Lockable>
class ZAV_SHM_SCOPED_CAPABILITY Guard {
public:
    explicit Guard(Lockable& mutex) ZAV_SHM_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }

    /// For a mutex that the caller has locked.
    Guard(Lockable& mutex, std::adopt_lock_t /*unused*/) ZAV_SHM_REQUIRES(mutex) : mutex_(mutex) {}
    ~Guard() ZAV_SHM_RELEASE() { mutex_.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    Lockable& mutex_;
};

/// Locks a mutex that others may hold for long, unless that takes longer than until then.
inline bool lock_until(Mutex& mutex, std::chrono::steady_clock::time_point end)
    ZAV_SHM_TRY_ACQUIRE(true, mutex) {
    constexpr std::chrono::milliseconds pause{1};
    while (!mutex.try_lock()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

/// The same for who waits for a condition, with std::condition_variable and lock(). While it waits
/// the mutex is free; the checker need not know.
class ZAV_SHM_SCOPED_CAPABILITY Waiting_Guard {
public:
    explicit Waiting_Guard(Mutex& mutex) ZAV_SHM_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~Waiting_Guard() ZAV_SHM_RELEASE() = default;
    Waiting_Guard(const Waiting_Guard&) = delete;
    Waiting_Guard& operator=(const Waiting_Guard&) = delete;

    std::unique_lock<std::mutex>& lock() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace zav_shm
