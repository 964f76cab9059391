#include <benchmarks/topic.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <sched.h>

namespace Kest::Benchmark {

bool IsWholeRun() {
    return std::getenv("KEST_BENCHMARK_WHOLE") != nullptr;
}

struct TPinned::TSet {
    cpu_set_t Processors;
};

TPinned::TPinned(unsigned processor) : Before(new TSet) {
    if (::sched_getaffinity(0, sizeof Before->Processors, &Before->Processors) != 0)
        throw std::runtime_error("the processors of the process are not to be found out");
    std::vector<unsigned> usable;
    for (unsigned each = 0; each < CPU_SETSIZE; ++each) {
        if (CPU_ISSET(each, &Before->Processors))
            usable.push_back(each);
    }
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    CPU_SET(usable[processor % usable.size()], &chosen);
    (void)::sched_setaffinity(0, sizeof chosen, &chosen);
}

TPinned::~TPinned() {
    (void)::sched_setaffinity(0, sizeof Before->Processors, &Before->Processors);
    delete Before;
}

TFolder::TFolder(TPlace place) {
    const char* where = std::getenv(place == Disk ? "KEST_BENCHMARK_DISK" : "KEST_BENCHMARK_MEMORY");
    if (where == nullptr)
        where = place == Disk ? "/var/tmp" : "/dev/shm";
    Path = std::string(where) + "/kest-XXXXXX";
    if (::mkdtemp(Path.data()) == nullptr)
        throw std::runtime_error("no temporary directory " + Path);
}

TFolder::~TFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(Path, ignored);
}

namespace {

/// A second thread that sleeps while the program measures. In a process with one thread the C library and the standard library leave
/// out atomic instructions, and locks would cost less than in a program that needs locks.
class TSleeper {
public:
    TSleeper() : Thread([this] { Sleep(); }) {}
    TSleeper(const TSleeper&) = delete;
    TSleeper& operator=(const TSleeper&) = delete;
    ~TSleeper() {
        {
            const std::lock_guard<std::mutex> lock(Mutex);
            IsOver = true;
        }
        Changed.notify_one();
        Thread.join();
    }

private:
    void Sleep() {
        std::unique_lock<std::mutex> lock(Mutex);
        Changed.wait(lock, [this] { return IsOver; });
    }

    std::mutex Mutex;
    std::condition_variable Changed;
    bool IsOver = false;
    std::thread Thread; // last: it uses the others
};

} // namespace
} // namespace Kest::Benchmark

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
        return 1;
    const Kest::Benchmark::TSleeper sleeper;
    Kest::Benchmark::RegisterTopic();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown(); // destroys the measurements, and with them what they keep: temporary directories
    return 0;
}
