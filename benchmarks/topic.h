#ifndef KEST_BENCHMARKS_TOPIC_H
#define KEST_BENCHMARKS_TOPIC_H

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <utility>

#include <time.h>

/// What the benchmarks share. A topic is one file and one program. It registers its measurements under names of the form
///
///     workload/variant/who[/size]
///
/// where who is "limit" for the work done with bare calls, "kest", or the name of a peer: "std", "poco", "apr", "boost". The report makes
/// a row of measurements that differ only in who, and a curve of measurements that differ only in size.
namespace Kest::Benchmark {

/// Registers the measurements of the topic. Each topic defines it, and the main program calls it once.
void RegisterTopic();

/// Whether sizes that take seconds are measured too: KEST_BENCHMARK_WHOLE is in the environment.
bool IsWholeRun();

/// Registers the measurement @p name of @p body, a callable that takes a benchmark::State&.
template <class TBody>
benchmark::internal::Benchmark* Register(const std::string& name, TBody body) {
    return benchmark::RegisterBenchmark(name.c_str(), std::move(body));
}

/// Registers a measurement of a size. The name ends in the size, and @p body takes it as its second argument.
template <class TBody>
benchmark::internal::Benchmark* Register(const std::string& name, std::int64_t size, TBody body) {
    const std::string sized = name + '/' + std::to_string(size);
    return Register(sized, [size, body](benchmark::State& state) { body(state, size); });
}

/// Keeps the calling thread on one of the processors that the process may use, while the object lives. Threads that wait for each other
/// share a processor: on two processors the time to wake the other thread would hide what is measured.
class TPinned {
public:
    explicit TPinned(unsigned processor = 0); ///< 0 is the first; beyond the last the count begins again
    TPinned(const TPinned&) = delete;
    TPinned& operator=(const TPinned&) = delete;
    ~TPinned();

private:
    struct TSet;
    TSet* Before;
};

/// The remark of measurements with two threads.
inline constexpr const char* OnOneProcessor = "both threads pinned to one processor, whose time is measured";
inline constexpr const char* OnTwoProcessors = "each thread pinned to a processor of its own";
inline constexpr const char* NotPinned = "two threads, not pinned";

/// A directory of the topic's own, on the disk or in memory. Removed with all it holds.
class TFolder {
public:
    enum TPlace { Disk, Memory };

    explicit TFolder(TPlace place); ///< KEST_BENCHMARK_DISK and KEST_BENCHMARK_MEMORY in the environment say where
    TFolder(const TFolder&) = delete;
    TFolder& operator=(const TFolder&) = delete;
    ~TFolder();

    std::string operator/(const std::string& name) const { return Path + '/' + name; }
    const std::string& GetPath() const { return Path; }

private:
    std::string Path;
};

/// Times one iteration by a clock of the system, for measurements that prepare or clear away something between iterations.
template <class TCall>
void TimeIteration(benchmark::State& state, clockid_t clock, const TCall& call) {
    timespec begin{};
    timespec end{};
    (void)::clock_gettime(clock, &begin);
    call();
    (void)::clock_gettime(clock, &end);
    state.SetIterationTime(static_cast<double>(end.tv_sec - begin.tv_sec) + static_cast<double>(end.tv_nsec - begin.tv_nsec) * 1e-9);
}

} // namespace Kest::Benchmark

#endif
