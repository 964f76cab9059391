// Conditions: two threads that wake each other in turns, and a signal for which nobody waits.
#include <benchmarks/topic.h>
#include <kest/threads/condition.h>
#include <kest/threads/mutex.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include <pthread.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_thread_cond.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/thread/condition_variable.hpp>
#endif

namespace Kest::Benchmark {

namespace {

// A monitor of each kind: a lock and a condition. Wait is called with the lock held.

class TBareMonitor {
public:
    void Enter() { (void)::pthread_mutex_lock(&Mutex); }
    void Leave() { (void)::pthread_mutex_unlock(&Mutex); }
    void Wait() { (void)::pthread_cond_wait(&Condition, &Mutex); }
    void Signal() { (void)::pthread_cond_signal(&Condition); }

private:
    pthread_mutex_t Mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t Condition = PTHREAD_COND_INITIALIZER;
};

class TKestMonitor {
public:
    void Enter() { Mutex.Enter(); }
    void Leave() { Mutex.Leave(); }
    void Wait() { Condition.Wait(Mutex); }
    void Signal() { Condition.Signal(); }

private:
    System::TMutex Mutex{false};
    System::TCondition Condition;
};

/// With the names of the standard library.
template <class TMutex, class TCondition>
class TStandardMonitor {
public:
    void Enter() { Lock.lock(); }
    void Leave() { Lock.unlock(); }
    void Wait() {
        std::unique_lock<TMutex> lock(Lock, std::adopt_lock);
        Condition.wait(lock);
        (void)lock.release();
    }
    void Signal() { Condition.notify_one(); }

private:
    TMutex Lock;
    TCondition Condition;
};

#ifdef KEST_BENCHMARK_POCO
class TPocoMonitor {
public:
    void Enter() { Mutex.lock(); }
    void Leave() { Mutex.unlock(); }
    void Wait() { Condition.wait(Mutex); }
    void Signal() { Condition.signal(); }

private:
    Poco::FastMutex Mutex;
    Poco::Condition Condition;
};
#endif

#ifdef KEST_BENCHMARK_APR
class TAprMonitor {
public:
    TAprMonitor() {
        (void)::apr_thread_mutex_create(&Mutex, APR_THREAD_MUTEX_UNNESTED, Pool.Get());
        (void)::apr_thread_cond_create(&Condition, Pool.Get());
    }

    void Enter() { (void)::apr_thread_mutex_lock(Mutex); }
    void Leave() { (void)::apr_thread_mutex_unlock(Mutex); }
    void Wait() { (void)::apr_thread_cond_wait(Condition, Mutex); }
    void Signal() { (void)::apr_thread_cond_signal(Condition); }

private:
    TAprPool Pool;
    apr_thread_mutex_t* Mutex = nullptr;
    apr_thread_cond_t* Condition = nullptr;
};
#endif

#ifdef KEST_BENCHMARK_BOOST
class TBoostMonitor {
public:
    void Enter() { Mutex.lock(); }
    void Leave() { Mutex.unlock(); }
    void Wait() {
        boost::unique_lock<boost::mutex> lock(Mutex, boost::adopt_lock);
        Condition.wait(lock);
        (void)lock.release();
    }
    void Signal() { Condition.notify_one(); }

private:
    boost::mutex Mutex;
    boost::condition_variable Condition;
};
#endif

/// One iteration is there and back: this thread wakes the other thread, and waits until the other thread has woken it.
template <class TMonitor>
void ThereAndBack(benchmark::State& state) {
    enum TTurn { Here, There, Over };
    const TPinned pinned;
    TMonitor monitor;
    TTurn turn = Here;
    std::thread other([&] {
        monitor.Enter();
        for (;;) {
            while (turn == Here)
                monitor.Wait();
            if (turn == Over)
                break;
            turn = Here;
            monitor.Signal();
        }
        monitor.Leave();
    });
    monitor.Enter();
    for (auto _ : state) {
        turn = There;
        monitor.Signal();
        while (turn == There)
            monitor.Wait();
    }
    turn = Over;
    monitor.Signal();
    monitor.Leave();
    other.join();
    state.SetLabel(OnOneProcessor);
}

template <class TMonitor>
void Add(const std::string& who) {
    Register("there and back/plain/" + who, ThereAndBack<TMonitor>)->MeasureProcessCPUTime();
    Register("signal/nobody waits/" + who, [](benchmark::State& state) {
        TMonitor monitor;
        for (auto _ : state)
            monitor.Signal();
    });
}

} // namespace

void RegisterTopic() {
    Add<TBareMonitor>("limit");
    Add<TKestMonitor>("kest");
    Add<TStandardMonitor<std::mutex, std::condition_variable>>("std");
#ifdef KEST_BENCHMARK_POCO
    Add<TPocoMonitor>("poco");
#endif
#ifdef KEST_BENCHMARK_APR
    Add<TAprMonitor>("apr");
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add<TBoostMonitor>("boost");
#endif
}

} // namespace Kest::Benchmark
