#ifndef KEST_THREADS_MUTEX_H
#define KEST_THREADS_MUTEX_H

/// @file
/// TMutex: a lock that one thread holds at a time, once or, where it is recursive, several times.

#include <kest/export.h>
#include <kest/interface/mutex.h>

#include <atomic>
#include <cstdint>

#include <pthread.h>

namespace Kest::System {

/// A mutex of the system. It is the only lock class of the library. The thread that is inside a recursive mutex may enter it again. The
/// mutex is free when that thread has left it as often as it entered.
///
/// |               | free to others | Enter() by the holder | TryEnter() by the holder |
/// |---------------|----------------|-----------------------|--------------------------|
/// | free          | yes            | -                     | -                        |
/// | held          | no             | waits for ever        | false                    |
/// | held n times, | no             | held n + 1 times      | true, held n + 1 times   |
/// | recursive     |                |                       |                          |
///
/// std::lock_guard, std::unique_lock and std::scoped_lock hold a mutex for a scope. No operation throws, and none reports a system result.
/// Objects are neither copied nor moved.
///
/// Threads: any thread may call any operation.
class KEST_EXPORT TMutex : public Interface::TMutex<Interface::TProtectionGuard> {
public:
    /// Makes a free mutex. With @p recursive its holder may enter it again.
    explicit TMutex(bool recursive);
    TMutex(const TMutex&) = delete;
    TMutex& operator=(const TMutex&) = delete;

    /// Destroys the mutex.
    /// Requires: no thread is inside, and no thread waits to enter.
    ~TMutex() override;

    /// Waits until the calling thread is inside.
    /// Requires: the calling thread is not inside already, unless the mutex is recursive. It would wait for ever.
    /// Waits: without a limit. A signal does not end the wait. Not a cancellation point.
    void Enter() override;

    /// Enters if that is possible without waiting.
    /// @return true when the calling thread has entered. False when another thread is inside, and when the calling thread is inside a mutex
    ///         that is not recursive.
    bool TryEnter() override;

    /// Gives up one entry.
    /// Requires: the calling thread is inside. A recursive mutex asserts that in debug builds.
    void Leave() override;

private:
    friend class TCondition; // it waits with the system mutex, and puts the bookkeeping aside meanwhile

    /// @cond
    /// Puts count and owner aside while the object lives, for a wait on a condition: other threads may hold the system mutex meanwhile. A
    /// wait ends with the system mutex held again, a cancelled wait too, so the destructor may write count and owner.
    class KEST_HIDDEN _TBookkeepingAside {
    public:
        explicit _TBookkeepingAside(TMutex& mutex);
        _TBookkeepingAside(const _TBookkeepingAside&) = delete;
        _TBookkeepingAside& operator=(const _TBookkeepingAside&) = delete;
        ~_TBookkeepingAside();

    private:
        TMutex& Mutex;
        const std::int32_t Count;
        const pthread_t Owner;
    };
    /// @endcond

    KEST_HIDDEN bool IsMine() const;
    KEST_HIDDEN void NoteFirstEntry();
    KEST_HIDDEN void NoteFurtherEntry();
    /// Enters a recursive mutex whose holder is another thread or nobody. A function of its own spares the other ways through Enter a stack
    /// frame.
    KEST_HIDDEN __attribute__((noinline)) void EnterFirst();

    pthread_mutex_t Mutex;
    const bool Recursive;

    // Used by recursive mutexes only. Only the thread that holds the system mutex writes them. Other threads read them without holding it:
    // only the owner can find its own id there, and the owner itself wrote it, so relaxed accesses decide correctly.
    std::atomic<std::int32_t> Count{0};
    std::atomic<pthread_t> Owner{0};
};

} // namespace Kest::System

#endif
