#include <kest/threads/mutex.h>

#include <cassert>

namespace Kest::System {

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

/// For a recursive mutex: whether the calling thread is inside.
bool TMutex::IsMine() const {
    return Count.load(std::memory_order_relaxed) != 0 && Owner.load(std::memory_order_relaxed) == ::pthread_self();
}

/// Of a recursive mutex, with the system mutex just taken.
void TMutex::NoteFirstEntry() {
    Owner.store(::pthread_self(), std::memory_order_relaxed);
    Count.store(1, std::memory_order_relaxed);
}

void TMutex::Enter() {
    if (!Recursive) {
        (void)::pthread_mutex_lock(&Mutex);
        return;
    }
    if (IsMine()) {
        Count.store(Count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return;
    }
    (void)::pthread_mutex_lock(&Mutex);
    NoteFirstEntry();
}

bool TMutex::TryEnter() {
    if (!Recursive)
        return ::pthread_mutex_trylock(&Mutex) == 0;
    if (IsMine()) {
        Count.store(Count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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
        // Cleared before the system mutex is free: a look without it must not find a stale owner.
        Owner.store(0, std::memory_order_relaxed);
    }
    (void)::pthread_mutex_unlock(&Mutex);
}

} // namespace Kest::System
