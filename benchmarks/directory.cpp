// Listing a directory from opening to closing, with a look at the name of each entry: on the disk, and in memory, where the system's share
// is smallest.
#include <benchmarks/topic.h>
#include <kest/filesystem/directory.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/DirectoryIterator.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_file_info.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/filesystem.hpp>
#endif

namespace Kest::Benchmark {

namespace {

// Each lists a directory and returns how long its names are together.

std::size_t BareListing(const std::string& path) {
    std::size_t length = 0;
    DIR* stream = ::opendir(path.c_str());
    while (const dirent* entry = ::readdir(stream))
        length += std::strlen(entry->d_name);
    (void)::closedir(stream);
    return length;
}

/// The bare calls with a lock, a string for each name and an exception at the end: threads may share the directory, and a name outlives the
/// next call.
std::size_t SharedListing(const std::string& path) {
    struct TEnd {};
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    DIR* stream = ::opendir(path.c_str());
    const auto read = [&] {
        (void)::pthread_mutex_lock(&lock);
        const std::unique_ptr<pthread_mutex_t, int (*)(pthread_mutex_t*)> locked(&lock, ::pthread_mutex_unlock);
        const dirent* entry = ::readdir(stream);
        return entry != nullptr ? std::string(entry->d_name) : throw TEnd();
    };
    std::size_t length = 0;
    try {
        for (;;)
            length += read().size();
    } catch (const TEnd&) {
        (void)::closedir(stream);
        return length;
    }
}

std::size_t KestListing(const std::string& path) {
    std::size_t length = 0;
    System::TDirectory directory(path);
    try {
        for (;;)
            length += directory.Read().GetName().size();
    } catch (const System::TDirectory::EEnd&) {
        return length;
    }
}

/// For iterators like those of the standard library.
template <class TIterator>
std::size_t StandardListing(const std::string& path) {
    std::size_t length = 0;
    for (TIterator entry(path); entry != TIterator(); ++entry)
        length += entry->path().filename().native().size();
    return length;
}

#ifdef KEST_BENCHMARK_POCO
std::size_t PocoListing(const std::string& path) {
    std::size_t length = 0;
    for (Poco::DirectoryIterator entry(path), end; entry != end; ++entry)
        length += entry.name().size();
    return length;
}
#endif

#ifdef KEST_BENCHMARK_APR
std::size_t AprListing(const std::string& path) {
    std::size_t length = 0;
    const TAprPool pool;
    apr_dir_t* directory = nullptr;
    apr_finfo_t entry{};
    (void)::apr_dir_open(&directory, path.c_str(), pool.Get());
    while (::apr_dir_read(&entry, APR_FINFO_DIRENT, directory) == APR_SUCCESS)
        length += std::strlen(entry.name);
    (void)::apr_dir_close(directory);
    return length;
}
#endif

/// A directory with so many files: names of one file, which are made when they are first needed.
class TFilled {
public:
    TFilled(TFolder::TPlace place, std::int64_t count) : Folder(place), Count(count) {}

    const std::string& GetPath() {
        for (; Made < Count; ++Made) {
            char name[32];
            (void)std::snprintf(name, sizeof name, "file-%07d.txt", static_cast<int>(Made));
            (void)::mknod((Folder / name).c_str(), S_IFREG | 0600, 0);
        }
        return Folder.GetPath();
    }

private:
    const TFolder Folder;
    const std::int64_t Count;
    std::int64_t Made = 0;
};

using TList = std::size_t(const std::string&);

void Add(const std::string& name, std::int64_t size, const std::shared_ptr<TFilled>& filled, TList* list) {
    auto* measurement = Register(name, size, [filled, list](benchmark::State& state, std::int64_t) {
        const std::string& path = filled->GetPath();
        for (auto _ : state)
            benchmark::DoNotOptimize(list(path));
    });
    measurement->Unit(benchmark::kMicrosecond);
    if (size >= 1000000)
        measurement->Iterations(1)->Repetitions(5);
}

void AddAll(const std::string& variant, TFolder::TPlace place, std::int64_t size) {
    const auto filled = std::make_shared<TFilled>(place, size);
    const std::string name = "list/" + variant + '/';
    Add(name + "limit", size, filled, BareListing);
    Add(name + "shared", size, filled, SharedListing);
    Add(name + "kest", size, filled, KestListing);
    Add(name + "std", size, filled, StandardListing<std::filesystem::directory_iterator>);
#ifdef KEST_BENCHMARK_POCO
    Add(name + "poco", size, filled, PocoListing);
#endif
#ifdef KEST_BENCHMARK_APR
    Add(name + "apr", size, filled, AprListing);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add(name + "boost", size, filled, StandardListing<boost::filesystem::directory_iterator>);
#endif
}

} // namespace

void RegisterTopic() {
    for (const std::int64_t size : {10, 100, 1000, 10000, 100000, 1000000}) {
        if (size == 1000000 && !IsWholeRun())
            continue;
        AddAll("disk", TFolder::Disk, size);
        AddAll("memory", TFolder::Memory, size);
    }
}

} // namespace Kest::Benchmark
