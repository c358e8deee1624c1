// A plain mutex that Clang's thread-safety analysis knows, and that analysis's annotations. Other compilers
// see nothing of them; the `annotations` preset makes a broken lock rule an error.
#pragma once

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

// lock and unlock make it serve std::condition_variable_any, too.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
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

} // namespace fodr
