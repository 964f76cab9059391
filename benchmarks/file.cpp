// What the system says of a file: its state, its full path, and whether its name matches a pattern.
#include <benchmarks/topic.h>
#include <kest/filesystem/file_state.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <cstdlib>
#include <fnmatch.h>
#include <sys/stat.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/File.h>
#include <Poco/Glob.h>
#include <Poco/Timestamp.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_file_info.h>
#include <apr_fnmatch.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/filesystem.hpp>
#endif

namespace Kest::Benchmark {

namespace {

// Each peer is asked for the type of the file, its size and the time of its last modification.

void BareState(const std::string& path) {
    struct stat status {};
    benchmark::DoNotOptimize(::stat(path.c_str(), &status));
    benchmark::DoNotOptimize(status);
}

void KestState(const std::string& path) {
    const System::TFile::TState state(path);
    benchmark::DoNotOptimize(state.GetType());
    benchmark::DoNotOptimize(state.GetSize());
    benchmark::DoNotOptimize(state.GetLastModificationTime());
}

void StdState(const std::string& path) {
    const std::filesystem::path file(path);
    benchmark::DoNotOptimize(std::filesystem::status(file));
    benchmark::DoNotOptimize(std::filesystem::file_size(file));
    benchmark::DoNotOptimize(std::filesystem::last_write_time(file));
}

void BarePath(const std::string& path) {
    char result[4096];
    benchmark::DoNotOptimize(::realpath(path.c_str(), result));
}

void KestPath(const std::string& path) {
    benchmark::DoNotOptimize(System::GetFullPathName(path));
}

void StdPath(const std::string& path) {
    benchmark::DoNotOptimize(std::filesystem::canonical(path));
}

const std::string Pattern = "*report-20[0-9][0-9]-*.t?t";
const std::string Name = "quarterly-report-2024-final.txt";

void BareMatch(const std::string&) {
    benchmark::DoNotOptimize(::fnmatch(Pattern.c_str(), Name.c_str(), FNM_NOESCAPE));
}

void KestMatch(const std::string&) {
    benchmark::DoNotOptimize(System::GetFileNameMatch(Name, Pattern));
}

#ifdef KEST_BENCHMARK_POCO
void PocoState(const std::string& path) {
    const Poco::File file(path);
    benchmark::DoNotOptimize(file.isFile());
    benchmark::DoNotOptimize(file.getSize());
    benchmark::DoNotOptimize(file.getLastModified());
}

void PocoMatch(const std::string&) {
    Poco::Glob glob(Pattern);
    benchmark::DoNotOptimize(glob.match(Name));
}
#endif

#ifdef KEST_BENCHMARK_APR
void AprState(const std::string& path) {
    const TAprPool pool;
    apr_finfo_t state{};
    benchmark::DoNotOptimize(::apr_stat(&state, path.c_str(), APR_FINFO_TYPE | APR_FINFO_SIZE | APR_FINFO_MTIME, pool.Get()));
    benchmark::DoNotOptimize(state);
}

void AprMatch(const std::string&) {
    benchmark::DoNotOptimize(::apr_fnmatch(Pattern.c_str(), Name.c_str(), APR_FNM_NOESCAPE));
}
#endif

#ifdef KEST_BENCHMARK_BOOST
void BoostState(const std::string& path) {
    const boost::filesystem::path file(path);
    benchmark::DoNotOptimize(boost::filesystem::status(file));
    benchmark::DoNotOptimize(boost::filesystem::file_size(file));
    benchmark::DoNotOptimize(boost::filesystem::last_write_time(file));
}

void BoostPath(const std::string& path) {
    benchmark::DoNotOptimize(boost::filesystem::canonical(path));
}
#endif

/// A file in a folder, and the way there through a link.
struct TPlace {
    TPlace() : Folder(TFolder::Memory), File(Folder / "a file with a name of some length.txt"), Link(Folder / "link") {
        std::ofstream(File) << "content";
        std::filesystem::create_symlink(Folder.GetPath(), Link);
    }

    const TFolder Folder;
    const std::string File;
    const std::string Link;
};

void Add(const std::string& name, const std::shared_ptr<const TPlace>& place, const std::string& path, void (*call)(const std::string&)) {
    Register(name, [place, path, call](benchmark::State& state) {
        for (auto _ : state)
            call(path);
    });
}

} // namespace

void RegisterTopic() {
    const auto place = std::make_shared<const TPlace>();
    const std::string winding = place->Link + "/./" + place->File.substr(place->File.rfind('/') + 1);
    Add("state/regular file/limit", place, place->File, BareState);
    Add("state/regular file/kest", place, place->File, KestState);
    Add("state/regular file/std", place, place->File, StdState);
    Add("full path/through a link/limit", place, winding, BarePath);
    Add("full path/through a link/kest", place, winding, KestPath);
    Add("full path/through a link/std", place, winding, StdPath);
    Add("wildcard/match/limit", place, {}, BareMatch);
    Add("wildcard/match/kest", place, {}, KestMatch);
#ifdef KEST_BENCHMARK_POCO
    Add("state/regular file/poco", place, place->File, PocoState);
    Add("wildcard/match/poco", place, {}, PocoMatch);
#endif
#ifdef KEST_BENCHMARK_APR
    Add("state/regular file/apr", place, place->File, AprState);
    Add("wildcard/match/apr", place, {}, AprMatch);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("state/regular file/boost", place, place->File, BoostState);
    Add("full path/through a link/boost", place, winding, BoostPath);
#endif
}

} // namespace Kest::Benchmark
