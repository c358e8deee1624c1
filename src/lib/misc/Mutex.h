// A plain mutex and its condition variable that Clang's thread-safety analysis knows, and that analysis's
// annotations. Other compilers see nothing of them; the `annotations` preset makes a broken lock rule an
// error.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define FODR_ANNOTATION(x) __attribute__((x))
#else
#define FODR_ANNOTATION(x)
#endif

#define CAPABILITY(name) FODR_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY FODR_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) FODR_ANNOTATION(guarded_by(lock))
#define REQUIRES(...) FODR_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) FODR_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) FODR_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) FODR_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) FODR_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS FODR_ANNOTATION(no_thread_safety_analysis)

namespace fodr {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    friend class Condition;
    std::mutex mutex;
};

class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex &held) ACQUIRE(held) : mutex(held) { mutex.lock(); }
    ~MutexLock() RELEASE() { mutex.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &mutex;
};

// Waits without the lock that its caller holds. Wake-ups may be spurious, so waits stand in a loop.
class Condition {
public:
    void wait(Mutex &held) REQUIRES(held)
    {
        Adopted lock(held);
        variable.wait(lock.lock);
    }
    template <class TimePoint> std::cv_status wait_until(Mutex &held, const TimePoint &end) REQUIRES(held)
    {
        Adopted lock(held);
        return variable.wait_until(lock.lock, end);
    }
    template <class Duration> std::cv_status wait_for(Mutex &held, const Duration &time) REQUIRES(held)
    {
        Adopted lock(held);
        return variable.wait_for(lock.lock, time);
    }
    void notify_one() { variable.notify_one(); }
    void notify_all() { variable.notify_all(); }

private:
    // The mutex in the form that the library wants, without letting go of it.
    struct Adopted {
        explicit Adopted(Mutex &held) : lock(held.mutex, std::adopt_lock) {}
        ~Adopted() { lock.release(); }
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable variable;
};

} // namespace fodr
