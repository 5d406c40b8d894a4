// Mutex, lock and condition variable on POSIX threads with default attributes, annotated for
// clang's thread-safety analysis. Every lock of the daemon is one of these; tests link their own
// implementation of what may block.
#pragma once

#include <pthread.h>

#include <ctime>

#if defined(__clang__)
#define SHD_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define SHD_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) SHD_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY SHD_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) SHD_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) SHD_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) SHD_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) SHD_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) SHD_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

class CAPABILITY("mutex") Mutex {
  public:
    Mutex() { pthread_mutex_init(&mutex_, nullptr); }
    ~Mutex() { pthread_mutex_destroy(&mutex_); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE();
    void Unlock() RELEASE();

  private:
    friend class CondVar;
    pthread_mutex_t mutex_;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

class CondVar {
  public:
    CondVar() { pthread_cond_init(&condition_, nullptr); }
    ~CondVar() { pthread_cond_destroy(&condition_); }
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Waits until signalled; may wake up without a signal.
    void Wait(Mutex& mutex) REQUIRES(mutex) { pthread_cond_wait(&condition_, &mutex.mutex_); }

    // Waits until signalled or until the wall clock reaches deadline_sec (0 ns). Returns 0 or
    // ETIMEDOUT.
    [[nodiscard]] int WaitUntil(Mutex& mutex, std::time_t deadline_sec) REQUIRES(mutex);

    void Signal() { pthread_cond_signal(&condition_); }
    void Broadcast() { pthread_cond_broadcast(&condition_); }

  private:
    pthread_cond_t condition_;
};
