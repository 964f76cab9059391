#include <kest/threads/mutex.h>

#include <cassert>

namespace Kest::System {

namespace {

/// The handle of the calling thread. On x86 the C library's handle is the pointer to the thread's own data, and reading that pointer needs
/// no call. The call would take longer than everything else that entering again does. Clang 13 knows the builtin and cannot compile it.
pthread_t Self() {
#if (defined(__x86_64__) || defined(__i386__)) && (defined(__clang__) ? __clang_major__ >= 14 : __has_builtin(__builtin_thread_pointer))
    return reinterpret_cast<pthread_t>(__builtin_thread_pointer());
#else
    return ::pthread_self();
#endif
}

} // namespace

TMutex::TMutex(bool recursive) : Mutex(), Recursive(recursive) {
    pthread_mutexattr_t attributes;
    (void)::pthread_mutexattr_init(&attributes);
    (void)::pthread_mutex_init(&Mutex, &attributes);
    (void)::pthread_mutexattr_destroy(&attributes);
}

TMutex::_TBookkeepingAside::_TBookkeepingAside(TMutex& mutex)
    : Mutex(mutex), Count(mutex.Count.exchange(0, std::memory_order_relaxed)), Owner(mutex.Owner.exchange(0, std::memory_order_relaxed)) {}

TMutex::_TBookkeepingAside::~_TBookkeepingAside() {
    Mutex.Owner.store(Owner, std::memory_order_relaxed);
    Mutex.Count.store(Count, std::memory_order_relaxed);
}

TMutex::~TMutex() {
    (void)::pthread_mutex_destroy(&Mutex);
}

/// Whether the calling thread is inside. For a recursive mutex only. A free mutex has no owner.
bool TMutex::IsMine() const {
    return Owner.load(std::memory_order_relaxed) == Self();
}

/// Notes the calling thread as the owner of a recursive mutex. The thread has just taken the system mutex.
void TMutex::NoteFirstEntry() {
    Owner.store(Self(), std::memory_order_relaxed);
    Count.store(1, std::memory_order_relaxed);
}

void TMutex::NoteFurtherEntry() {
    Count.store(Count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void TMutex::EnterFirst() {
    (void)::pthread_mutex_lock(&Mutex);
    NoteFirstEntry();
}

void TMutex::Enter() {
    if (!Recursive)
        (void)::pthread_mutex_lock(&Mutex);
    else if (IsMine())
        NoteFurtherEntry();
    else
        EnterFirst();
}

bool TMutex::TryEnter() {
    if (!Recursive)
        return ::pthread_mutex_trylock(&Mutex) == 0;
    if (IsMine()) {
        NoteFurtherEntry();
        return true;
    }
    if (Count.load(std::memory_order_relaxed) != 0 || ::pthread_mutex_trylock(&Mutex) != 0)
        return false;
    NoteFirstEntry();
    return true;
}

void TMutex::Leave() {
    if (Recursive) {
        assert(IsMine());
        const std::int32_t left = Count.load(std::memory_order_relaxed) - 1;
        Count.store(left, std::memory_order_relaxed);
        if (left > 0)
            return;
        // Cleared before the system mutex is free: the unlocked reading in IsMine() must not find a stale owner.
        Owner.store(0, std::memory_order_relaxed);
    }
    (void)::pthread_mutex_unlock(&Mutex);
}

} // namespace Kest::System
