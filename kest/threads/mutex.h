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

/// A mutex of the system, and the library's one lock class. Made recursive, it may be entered again by the thread that is inside,
/// and is free when that thread has left as often as it entered.
///
/// |               | free to others | Enter() by the holder | TryEnter() by the holder |
/// |---------------|----------------|-----------------------|--------------------------|
/// | free          | yes            | -                     | -                        |
/// | held          | no             | waits for ever        | false                    |
/// | held n times, | no             | held n + 1 times      | true, held n + 1 times   |
/// | recursive     |                |                       |                          |
///
/// std::lock_guard, std::unique_lock and std::scoped_lock hold it for a scope. No operation throws, and none reports a system result.
///
/// Threads: any thread may call any operation. Objects are neither copied nor moved.
class KEST_EXPORT TMutex : public Interface::TMutex<Interface::TProtectionGuard> {
public:
    /// A free mutex; @p recursive lets its holder enter again.
    explicit TMutex(bool recursive);
    TMutex(const TMutex&) = delete;
    TMutex& operator=(const TMutex&) = delete;

    /// Requires: nobody is inside, or waits to be.
    ~TMutex() override;

    /// Waits until the calling thread is inside.
    /// Requires, unless recursive: the calling thread is not inside already; it would wait for ever.
    /// Waits: without a limit. A signal does not end the wait. Not a cancellation point.
    void Enter() override;

    /// Enters if nobody else is inside; false otherwise, at once.
    bool TryEnter() override;

    /// Gives up one entry. Requires: the calling thread is inside. A recursive mutex asserts that in debug builds.
    void Leave() override;

private:
    friend class TCondition; // waits on the system mutex and puts the bookkeeping aside meanwhile

    /// @cond
    /// Count and owner, put aside while the object lives: for a wait, which gives the system mutex to others. A cancelled wait unwinds
    /// with the system mutex held again, so the destructor may write them.
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
    /// A function of its own, so that the other ways through Enter need no stack frame.
    KEST_HIDDEN __attribute__((noinline)) void EnterFirst();

    pthread_mutex_t Mutex;
    const bool Recursive;

    // Used by recursive mutexes only, and written only by the thread that holds the system mutex. They are also looked at without it:
    // only the owner can find its own id there, and it wrote that itself, so relaxed accesses decide correctly.
    std::atomic<std::int32_t> Count{0};
    std::atomic<pthread_t> Owner{0};
};

} // namespace Kest::System

#endif
