// Copying a file within the disk, within memory and from disk to memory, and renaming a file.
#include <benchmarks/topic.h>
#include <kest/filesystem/file.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include <cstdio>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/File.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_file_io.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/filesystem.hpp>
#endif

namespace Kest::Benchmark {

namespace {

/// The kernel moves the bytes, from one file system to another too.
void BareCopy(const std::string& from, const std::string& to) {
    constexpr std::size_t most = 1U << 30U;
    const int in = ::open(from.c_str(), O_RDONLY);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    ssize_t moved = 0;
    do {
        moved = ::copy_file_range(in, nullptr, out, nullptr, most, 0);
        if (moved < 0)
            moved = ::sendfile(out, in, nullptr, most);
    } while (moved > 0);
    (void)::close(out);
    (void)::close(in);
}

void KestCopy(const std::string& from, const std::string& to) {
    System::TFile::Copy(from, to);
}

void StdCopy(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to);
}

void StreamCopy(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios_base::binary);
    std::ofstream out(to, std::ios_base::binary);
    out << in.rdbuf();
}

/// The look at the end tells a move from a rename of two links of one file, for which the system does nothing.
void BareRename(const std::string& from, const std::string& to) {
    struct stat source {};
    (void)std::rename(from.c_str(), to.c_str());
    benchmark::DoNotOptimize(::lstat(from.c_str(), &source));
}

void KestRename(const std::string& from, const std::string& to) {
    System::TFile::Rename(from, to);
}

void StdRename(const std::string& from, const std::string& to) {
    std::filesystem::rename(from, to);
}

#ifdef KEST_BENCHMARK_POCO
void PocoCopy(const std::string& from, const std::string& to) {
    Poco::File(from).copyTo(to);
}

void PocoRename(const std::string& from, const std::string& to) {
    Poco::File(from).renameTo(to);
}
#endif

#ifdef KEST_BENCHMARK_APR
void AprCopy(const std::string& from, const std::string& to) {
    const TAprPool pool;
    (void)::apr_file_copy(from.c_str(), to.c_str(), APR_FPROT_OS_DEFAULT, pool.Get());
}

void AprRename(const std::string& from, const std::string& to) {
    const TAprPool pool;
    (void)::apr_file_rename(from.c_str(), to.c_str(), pool.Get());
}
#endif

#ifdef KEST_BENCHMARK_BOOST
void BoostCopy(const std::string& from, const std::string& to) {
    boost::filesystem::copy_file(from, to);
}

void BoostRename(const std::string& from, const std::string& to) {
    boost::filesystem::rename(from, to);
}
#endif

using TOperation = void(const std::string&, const std::string&);

void Fill(const std::string& path, std::int64_t size) {
    std::ofstream out(path, std::ios_base::binary);
    std::vector<char> block(1U << 20U, 'k');
    for (std::int64_t left = size; left > 0; left -= static_cast<std::int64_t>(block.size()))
        out.write(block.data(), static_cast<std::streamsize>(std::min(left, static_cast<std::int64_t>(block.size()))));
}

/// The destination is removed between copies: the system would write an old file out when its new content is closed.
void Copy(benchmark::State& state, std::int64_t size, const TFolder& source, const TFolder& destination, TOperation* copy) {
    const std::string from = source / std::to_string(size);
    const std::string to = destination / "copy";
    if (!std::filesystem::exists(from))
        Fill(from, size);
    (void)::unlink(to.c_str());
    for (auto _ : state) {
        TimeIteration(state, CLOCK_MONOTONIC, [&] { copy(from, to); });
        if (std::filesystem::file_size(to) != static_cast<std::uintmax_t>(size)) {
            state.SkipWithError("the copy is not as long as the file");
            break;
        }
        (void)::unlink(to.c_str());
    }
}

using TFolders = std::shared_ptr<const TFolder>;

void AddCopy(const std::string& variant, const std::string& who, const TFolders& source, const TFolders& destination, TOperation* copy) {
    constexpr std::int64_t mebi = 1 << 20;
    for (const std::int64_t size :
         {std::int64_t{1024}, std::int64_t{4096}, std::int64_t{65536}, mebi, 16 * mebi, 256 * mebi, 1024 * mebi}) {
        if (size > 16 * mebi && !IsWholeRun())
            continue;
        auto* measurement =
            Register("copy/" + variant + '/' + who, size, [source, destination, copy](benchmark::State& state, std::int64_t bytes) {
                Copy(state, bytes, *source, *destination, copy);
            });
        measurement->UseManualTime();
        if (size > mebi)
            measurement->Iterations(1);
        if (size > 16 * mebi)
            measurement->Repetitions(size == 256 * mebi ? 5 : 3);
    }
}

void AddRename(const std::string& variant, const std::string& who, const TFolders& folder, TOperation* rename) {
    Register("rename/" + variant + '/' + who, [folder, rename](benchmark::State& state) {
        const std::string names[] = {*folder / "a name", *folder / "another name"};
        Fill(names[0], 1);
        unsigned turn = 0;
        for (auto _ : state) {
            rename(names[turn % 2], names[(turn + 1) % 2]);
            ++turn;
        }
        (void)::unlink(names[turn % 2].c_str());
    });
}

void Add(const std::string& who, const TFolders& disk, const TFolders& memory, TOperation* copy, TOperation* rename) {
    AddCopy("disk", who, disk, disk, copy);
    AddCopy("memory", who, memory, memory, copy);
    if (who != "boost") // Boost leaves a copy from one file system to another to the caller
        AddCopy("across", who, disk, memory, copy);
    if (rename != nullptr) {
        AddRename("disk", who, disk, rename);
        AddRename("memory", who, memory, rename);
    }
}

} // namespace

void RegisterTopic() {
    const auto disk = std::make_shared<const TFolder>(TFolder::Disk);
    const auto memory = std::make_shared<const TFolder>(TFolder::Memory);
    Add("limit", disk, memory, BareCopy, BareRename);
    Add("kest", disk, memory, KestCopy, KestRename);
    Add("std", disk, memory, StdCopy, StdRename);
    Add("stream", disk, memory, StreamCopy, nullptr);
#ifdef KEST_BENCHMARK_POCO
    Add("poco", disk, memory, PocoCopy, PocoRename);
#endif
#ifdef KEST_BENCHMARK_APR
    Add("apr", disk, memory, AprCopy, AprRename);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("boost", disk, memory, BoostCopy, BoostRename);
#endif
}

} // namespace Kest::Benchmark
