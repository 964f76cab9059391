// Entering and leaving a lock: free, entered again by its holder, and contended by two threads.
#include <benchmarks/topic.h>
#include <kest/threads/mutex.h>

#include <memory>
#include <mutex>

#include <pthread.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Mutex.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_thread_mutex.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#endif

namespace Kest::Benchmark {

namespace {

class TBareMutex {
public:
    explicit TBareMutex(int kind) {
        pthread_mutexattr_t attributes;
        (void)::pthread_mutexattr_init(&attributes);
        (void)::pthread_mutexattr_settype(&attributes, kind);
        (void)::pthread_mutex_init(&Mutex, &attributes);
        (void)::pthread_mutexattr_destroy(&attributes);
    }
    TBareMutex(const TBareMutex&) = delete;
    TBareMutex& operator=(const TBareMutex&) = delete;
    ~TBareMutex() { (void)::pthread_mutex_destroy(&Mutex); }

    void Enter() { (void)::pthread_mutex_lock(&Mutex); }
    void Leave() { (void)::pthread_mutex_unlock(&Mutex); }

private:
    pthread_mutex_t Mutex{};
};

/// A mutex with the names of the standard library, which most peers have.
template <class TMutex>
class TStandardMutex {
public:
    void Enter() { Mutex.lock(); }
    void Leave() { Mutex.unlock(); }

private:
    TMutex Mutex;
};

#ifdef KEST_BENCHMARK_APR
class TAprMutex {
public:
    explicit TAprMutex(unsigned kind) { (void)::apr_thread_mutex_create(&Mutex, kind, Pool.Get()); }

    void Enter() { (void)::apr_thread_mutex_lock(Mutex); }
    void Leave() { (void)::apr_thread_mutex_unlock(Mutex); }

private:
    TAprPool Pool;
    apr_thread_mutex_t* Mutex = nullptr;
};
#endif

template <class TLock>
void EnterAndLeave(benchmark::State& state, TLock& lock) {
    for (auto _ : state) {
        lock.Enter();
        lock.Leave();
    }
}

/// The threads change one number under the lock; each is on a processor of its own.
template <class TLock>
void Contend(benchmark::State& state, TLock& lock, std::int64_t& number) {
    const TPinned pinned(static_cast<unsigned>(state.thread_index()));
    for (auto _ : state) {
        lock.Enter();
        benchmark::DoNotOptimize(++number);
        lock.Leave();
    }
    state.SetLabel(OnTwoProcessors);
}

/// Measures locks of the class @p TLock, made from @p arguments.
template <class TLock, class... TArguments>
void Add(const std::string& variant, const std::string& who, TArguments... arguments) {
    const auto lock = std::make_shared<TLock>(arguments...);
    Register("free/" + variant + '/' + who, [lock](benchmark::State& state) { EnterAndLeave(state, *lock); });
    if (variant == "recursive") {
        Register("re-entered/" + variant + '/' + who, [lock](benchmark::State& state) {
            lock->Enter();
            EnterAndLeave(state, *lock);
            lock->Leave();
        });
    }
    const auto number = std::make_shared<std::int64_t>(0);
    Register("contended/" + variant + '/' + who, [lock, number](benchmark::State& state) { Contend(state, *lock, *number); })
        ->Threads(2)
        ->UseRealTime()
        ->MinTime(0.05); // or one thread is done before the other has begun
}

} // namespace

void RegisterTopic() {
    Add<TBareMutex>("plain", "limit", PTHREAD_MUTEX_NORMAL);
    Add<TBareMutex>("recursive", "limit", PTHREAD_MUTEX_RECURSIVE);
    Add<System::TMutex>("plain", "kest", false);
    Add<System::TMutex>("recursive", "kest", true);
    Add<TStandardMutex<std::mutex>>("plain", "std");
    Add<TStandardMutex<std::recursive_mutex>>("recursive", "std");
#ifdef KEST_BENCHMARK_POCO
    Add<TStandardMutex<Poco::FastMutex>>("plain", "poco");
    Add<TStandardMutex<Poco::Mutex>>("recursive", "poco");
#endif
#ifdef KEST_BENCHMARK_APR
    Add<TAprMutex>("plain", "apr", APR_THREAD_MUTEX_UNNESTED);
    Add<TAprMutex>("recursive", "apr", APR_THREAD_MUTEX_NESTED);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add<TStandardMutex<boost::mutex>>("plain", "boost");
    Add<TStandardMutex<boost::recursive_mutex>>("recursive", "boost");
#endif
}

} // namespace Kest::Benchmark
