// Starting a thread that does nothing, and waiting for it.
#include <benchmarks/topic.h>
#include <kest/threads/thread.h>

#include <thread>

#include <pthread.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_thread_proc.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/thread/thread.hpp>
#endif

namespace Kest::Benchmark {

namespace {

void BareThread() {
    pthread_t thread{};
    (void)::pthread_create(
        &thread, nullptr, [](void* nothing) { return nothing; }, nullptr);
    (void)::pthread_join(thread, nullptr);
}

class TIdleThread : public System::TThread {
public:
    int Run() override { return 0; }
};

void KestThread() {
    TIdleThread thread;
    thread.Start();
    benchmark::DoNotOptimize(thread.WaitFor());
}

template <class TThread>
void StandardThread() {
    TThread thread([] {});
    thread.join();
}

#ifdef KEST_BENCHMARK_POCO
class TIdleRunnable : public Poco::Runnable {
public:
    void run() override {}
};

void PocoThread() {
    TIdleRunnable runnable;
    Poco::Thread thread;
    thread.start(runnable);
    thread.join();
}
#endif

#ifdef KEST_BENCHMARK_APR
void* APR_THREAD_FUNC IdleAprThread(apr_thread_t* thread, void*) {
    (void)::apr_thread_exit(thread, APR_SUCCESS);
    return nullptr;
}

void AprThread() {
    const TAprPool pool;
    apr_thread_t* thread = nullptr;
    apr_status_t result = APR_SUCCESS;
    (void)::apr_thread_create(&thread, nullptr, &IdleAprThread, nullptr, pool.Get());
    (void)::apr_thread_join(&result, thread);
}
#endif

void Add(const std::string& who, void (*startAndJoin)()) {
    Register("start and join/pinned/" + who, [startAndJoin](benchmark::State& state) {
        const TPinned pinned; // the new thread has what the old one has
        for (auto _ : state)
            startAndJoin();
        state.SetLabel(OnOneProcessor);
    })->MeasureProcessCPUTime();
    Register("start and join/not pinned/" + who, [startAndJoin](benchmark::State& state) {
        for (auto _ : state)
            startAndJoin();
        state.SetLabel(NotPinned);
    })->UseRealTime();
}

} // namespace

void RegisterTopic() {
    Add("limit", BareThread);
    Add("kest", KestThread);
    Add("std", StandardThread<std::thread>);
#ifdef KEST_BENCHMARK_POCO
    Add("poco", PocoThread);
#endif
#ifdef KEST_BENCHMARK_APR
    Add("apr", AprThread);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("boost", StandardThread<boost::thread>);
#endif
}

} // namespace Kest::Benchmark
