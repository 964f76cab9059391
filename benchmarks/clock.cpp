// Reading the system's settable clock.
#include <benchmarks/topic.h>
#include <kest/foundation/time.h>

#include <chrono>

#include <sys/time.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Timestamp.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <apr_time.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/chrono.hpp>
#endif

namespace Kest::Benchmark {

namespace {

template <class TRead>
void Add(const std::string& who, const TRead& read) {
    Register("now/settable/" + who, [read](benchmark::State& state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(read());
    });
}

} // namespace

void RegisterTopic() {
    Add("limit", [] {
        timeval now{};
        (void)::gettimeofday(&now, nullptr);
        return now;
    });
    Add("kest", [] { return System::GetCurrentTime(); });
    Add("std", [] { return std::chrono::system_clock::now(); });
#ifdef KEST_BENCHMARK_POCO
    Add("poco", [] { return Poco::Timestamp(); });
#endif
#ifdef KEST_BENCHMARK_APR
    Add("apr", [] { return ::apr_time_now(); });
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("boost", [] { return boost::chrono::system_clock::now(); });
#endif
}

} // namespace Kest::Benchmark
