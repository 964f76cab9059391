#include <kest/filesystem/directory.h>
#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>

#include <support/child.h>
#include <support/descriptors.h>
#include <support/helper_thread.h>
#include <support/message.h>
#include <support/temporary_directory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

/// The message of a failure that ends with the system's description.
std::string Described(const std::string& what, int code) {
    return "Kest: " + what + std::strerror(code);
}

void Ensure(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error("the test cannot prepare " + what + ": " + std::strerror(errno));
}

void WriteFile(const std::string& path, const std::string& content) {
    Ensure((std::ofstream(path, std::ios::binary) << content << std::flush).good(), path);
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The same bytes for the same size.
std::string SomeBytes(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, 0);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    Ensure(::stat(path.c_str(), &status) == 0, "the status of " + path);
    return status;
}

void SetTimes(const std::string& path, timespec access, timespec modification) {
    const timespec times[] = {access, modification};
    Ensure(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "the times of " + path);
}

/// What a directory holds, one text an entry and sorted: "d/" a directory, "f=content" a file, "l->target" a symbolic link, "p|" a named
/// pipe. Make() also takes "h&f", one more hard link of f.
using TTree = std::vector<std::string>;

void Make(const std::string& directory, const TTree& tree) {
    for (const std::string& entry : tree) {
        const std::size_t end = entry.find_first_of("=-|&");
        const std::string path = directory + '/' + entry.substr(0, end);
        if (end == std::string::npos)
            std::filesystem::create_directory(path);
        else if (entry[end] == '=')
            WriteFile(path, entry.substr(end + 1));
        else if (entry[end] == '-')
            std::filesystem::create_symlink(entry.substr(end + 2), path);
        else if (entry[end] == '&')
            Ensure(::link((directory + '/' + entry.substr(end + 1)).c_str(), path.c_str()) == 0, entry); // of the link, if it is one
        else
            Ensure(::mkfifo(path.c_str(), 0600) == 0, entry);
    }
}

TTree TreeOf(const std::string& directory) {
    TTree tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        const std::string name = entry.path().string().substr(directory.size() + 1);
        if (entry.is_symlink())
            tree.push_back(name + "->" + std::filesystem::read_symlink(entry.path()).string());
        else if (entry.is_directory())
            tree.push_back(name + '/');
        else
            tree.push_back(entry.is_fifo() ? name + '|' : name + '=' + ReadFile(entry.path().string()));
    }
    std::sort(tree.begin(), tree.end());
    return tree;
}

/// Tests that need more than one file system. What InMounts() is given runs on a thread that sees, in Directory: "near", of some MiB;
/// "far", another file system of 64 KiB; "again" and "fixed", which are "near" by another road, the latter read-only. Nobody else sees
/// them, and they go with the thread.
class WithMounts : public testing::Test {
protected:
    static constexpr std::size_t FarSize = 65536;

    void SetUp() override {
        if (!OnAnotherThread(IsAlone))
            GTEST_SKIP() << "this user may not mount file systems here";
    }

    void InMounts(const std::function<void()>& body) const {
        OnAnotherThread([&] {
            Ensure(IsAlone(), "mounts of its own");
            for (const char* name : {"near", "far", "again", "fixed"})
                std::filesystem::create_directory(Directory / name);
            Mount("none", "near", "tmpfs", 0, "size=4m,mode=777");
            Mount("none", "far", "tmpfs", 0, "size=64k,mode=777");
            Mount(Directory / "near", "again", nullptr, MS_BIND, nullptr);
            Mount(Directory / "near", "fixed", nullptr, MS_BIND, nullptr);
            Mount("none", "fixed", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr);
            body();
        });
    }

    /// The trees of both file systems.
    TTree MountedTree() const {
        TTree tree;
        for (const std::string place : {"far", "near"})
            for (const std::string& entry : TreeOf(Directory / place))
                tree.push_back((place + '/').append(entry));
        return tree;
    }

    TTemporaryDirectory Directory;

private:
    static bool IsAlone() { return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0; }

    void Mount(const std::string& source, const std::string& name, const char* type, unsigned long flags, const char* options) const {
        Ensure(::mount(source.c_str(), (Directory / name).c_str(), type, flags, options) == 0, name);
    }
};

std::string CopyError(const std::string& from, const std::string& to) {
    return "Kest: file copy error: from " + from + " to " + to;
}

TEST(FileCopy, ContentAndModificationTimeAreThoseOfTheSource) {
    const TTemporaryDirectory directory;
    const std::string from = directory / "from";
    const std::string to = directory / "to";
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 8190U, 8191U, 8192U, 8193U, 16384U, 1U << 20}) {
        SCOPED_TRACE(size);
        WriteFile(to, std::string(size + 1000, 'x'));
        WriteFile(from, SomeBytes(size));
        SetTimes(from, {1000, 0}, {8589934592, 750000000});
        TFile::Copy(from, to);
        EXPECT_TRUE(ReadFile(to) == SomeBytes(size)); // not EXPECT_EQ, which would print it
        EXPECT_EQ(StatusOf(to).st_mtim.tv_sec, 8589934592);
        EXPECT_EQ(StatusOf(to).st_mtim.tv_nsec, 0);
    }
    TFile::Copy("/proc/filesystems", to); // of which the system says that it is empty
    EXPECT_EQ(ReadFile(to), ReadFile("/proc/filesystems"));
}

TEST(FileCopy, FailureLeavesWhatIsDocumented) {
    const struct {
        TTree Before;
        std::string From, To;
        TTree After;
    } cases[] = {
        {{"b=22"}, "gone", "b", {"b=22"}},
        {{"d/"}, "d", "b", {"b=", "d/"}},
        {{"a=1", "d/"}, "a", "d", {"a=1", "d/"}},
        // One file, by whatever roads.
        {{"a=1"}, "a", "a", {"a=1"}},
        {{"a=1", "l->a"}, "a", "l", {"a=1", "l->a"}},
        {{"a=1", "l->."}, "l/a", "a", {"a=1", "l->."}},
        {{"a=1", "h&a"}, "a", "h", {"a=1", "h=1"}},
    };
    for (const auto& each : cases) {
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), each.Before);
        const std::string from = directory / each.From;
        const std::string to = directory / each.To;
        SCOPED_TRACE(each.From + " to " + each.To);
        const int before = OpenDescriptors();
        EXPECT_KEST_THROW(TFile::Copy(from, to), EException,
                          each.From == "gone" ? Described("getting file state failed: ", ENOENT) : CopyError(from, to));
        EXPECT_EQ(TreeOf(directory.GetPath()), each.After);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST_F(WithMounts, CopyToAFullDiskIsTheCopyErrorAndOntoItselfTouchesNothing) {
    InMounts([this] {
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/a";
        for (const std::size_t size : {std::size_t{1}, std::size_t{8192}, FarSize, FarSize + 1, FarSize + 100000}) {
            SCOPED_TRACE(size);
            WriteFile(from, SomeBytes(size));
            EXPECT_KEST_THROW(TFile::Copy(from, "/dev/full"), EException, CopyError(from, "/dev/full"));
            if (size <= FarSize)
                TFile::Copy(from, to);
            else
                EXPECT_KEST_THROW(TFile::Copy(from, to), EException, CopyError(from, to));
            EXPECT_TRUE(ReadFile(to) == SomeBytes(size).substr(0, FarSize)) << "what was written stays";
        }
        Make(Directory.GetPath(), {"near/b=1", "near/h&near/b"});
        for (const std::string& road : {Directory / "again/b", Directory / "again/h"})
            EXPECT_KEST_THROW(TFile::Copy(Directory / "near/b", road), EException, CopyError(Directory / "near/b", road));
        EXPECT_EQ(ReadFile(Directory / "near/b"), "1");
    });
}

const std::string CopyFailed = "Kest: cross device link: tryed to copy and remove: copy failed";
const std::string RemoveFailed = "Kest: cross device link: tryed to copy and remove: remove failed";

TEST(FileRename, WithinAFileSystem) {
    const struct {
        TTree Before;
        std::string From, To;
        int Code; ///< 0 for success
        TTree After;
    } cases[] = {
        {{"a=1", "b=22"}, "a", "b", 0, {"b=1"}},
        {{"b=22"}, "a", "b", ENOENT, {"b=22"}},
        // One entry by two names.
        {{"a=1"}, "a", "a", 0, {"a=1"}},
        {{"a=1", "d/"}, "a", "d/../a", 0, {"a=1", "d/"}},
        {{"d/", "d/a=1", "l->d"}, "d/a", "l/a", 0, {"d/", "d/a=1", "l->d"}},
        {{"a=1", "h&a", "l->."}, "a", "l/a", 0, {"a=1", "h=1", "l->."}},
        // Two hard links of one file.
        {{"a=1", "h&a"}, "a", "h", 0, {"h=1"}},
        {{"a=1", "l->a", "m&l"}, "l", "m", 0, {"a=1", "m->a"}}, // two hard links of a symbolic link
        {{"d/", "d/a=1", "e/", "e/b=2"}, "d", "e", ENOTEMPTY, {"d/", "d/a=1", "e/", "e/b=2"}},
    };
    for (const auto& each : cases) {
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), each.Before);
        const std::string from = directory / each.From;
        const std::string to = directory / each.To;
        SCOPED_TRACE(testing::PrintToString(each.Before) + " " + each.From + " to " + each.To);
        const std::string failure = Described("rename failed: from '" + from + "' to '" + to + "': ", each.Code);
        if (each.Code == 0)
            TFile::Rename(from, to);
        else
            EXPECT_KEST_THROW(TFile::Rename(from, to), EException, failure);
        EXPECT_EQ(TreeOf(directory.GetPath()), each.After);
    }
}

TEST_F(WithMounts, Rename) {
    const std::string large = SomeBytes(FarSize + 1);
    const struct {
        TTree Before;
        std::string From, To, Message; ///< without a message it succeeds
        TTree After;
    } cases[] = {
        {{"near/a=1", "far/b=22"}, "near/a", "far/b", "", {"far/b=1"}},
        {{"near/a=1", "near/l->a"}, "near/l", "far/b", "", {"far/b=1", "near/a=1"}},
        // What stands at the destination is replaced, and nothing that is reached through it is written to.
        {{"near/a=1", "far/b=22", "far/l->b"}, "near/a", "far/l", "", {"far/b=22", "far/l=1"}},
        {{"near/a=1", "far/b=22", "far/h&far/b"}, "near/a", "far/h", "", {"far/b=22", "far/h=1"}},
        {{"near/a=1", "far/l->../near/a"}, "near/a", "far/l", "", {"far/l=1"}},
        // The copy fails.
        {{"near/a=" + large, "far/b=22"}, "near/a", "far/b", CopyFailed, {"near/a=" + large}},
        {{"near/a=1", "far/d/", "far/d/b=2"}, "near/a", "far/d", CopyFailed, {"far/d/", "far/d/b=2", "near/a=1"}},
        {{"near/d/", "far/b=22"}, "near/d", "far/b", CopyFailed, {"far/b=22", "near/d/"}},
        // The copy may be made, the source not removed.
        {{"near/a=1", "far/b=22"}, "fixed/a", "far/b", RemoveFailed, {"near/a=1"}},
        // One file by two mounts.
        {{"near/a=1"}, "near/a", "again/a", CopyFailed, {"near/a=1"}},
        {{"near/a=1", "near/h&near/a"}, "near/a", "again/h", CopyFailed, {"near/a=1", "near/h=1"}},
        {{"near/a=1", "near/l->a", "near/m&near/l"}, "near/l", "again/m", CopyFailed, {"near/a=1", "near/l->a", "near/m->a"}},
        {{"near/a=1"}, "near/a", "again/b", "", {"near/b=1"}}, // there is a way, if not the shortest
    };
    for (const auto& each : cases) {
        InMounts([&] {
            SCOPED_TRACE(each.From + " to " + each.To + " shall give " + testing::PrintToString(each.After).substr(0, 200));
            Make(Directory.GetPath(), each.Before);
            const int before = OpenDescriptors();
            if (each.Message.empty())
                TFile::Rename(Directory / each.From, Directory / each.To);
            else
                EXPECT_KEST_THROW(TFile::Rename(Directory / each.From, Directory / each.To), EException, each.Message);
            EXPECT_TRUE(MountedTree() == each.After) << testing::PrintToString(MountedTree()).substr(0, 200);
            EXPECT_EQ(OpenDescriptors(), before);
        });
    }
}

// Whenever one looks, before and after the kill, the destination is there and is one of the two files as a whole.
TEST(FileRename, DestinationIsWholeWheneverTheProcessIsKilled) {
    const TTemporaryDirectory directory;
    const std::string contents[] = {SomeBytes(9000), SomeBytes(9001)};
    for (const char* name : {"0", "1", "to"})
        WriteFile(directory / name, contents[*name == '1']);
    const auto isWhole = [&] {
        const std::string content = ReadFile(directory / "to");
        return content == contents[0] || content == contents[1];
    };
    for (int round = 0; round < 50 && !HasFailure(); ++round) {
        std::filesystem::remove(directory / "from");
        const pid_t child = ::fork();
        if (child == 0) {
            for (unsigned turn = 0;; ++turn) {
                if (::link((directory / (turn % 2 == 0 ? "0" : "1")).c_str(), (directory / "from").c_str()) != 0)
                    ::_exit(1);
                TFile::Rename(directory / "from", directory / "to");
            }
        }
        ASSERT_GT(child, 0);
        for (int left = round * 2; left > 0 && !HasFailure(); --left)
            EXPECT_TRUE(isWhole());
        ::kill(child, SIGKILL);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the child ended by itself";
        EXPECT_TRUE(isWhole());
    }
}

TEST(FileNames, AreCanonicalAndMatchByWildcard) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"d/", "d/y.txt=1", "l->d", "a\\b="});
    const std::string root = std::filesystem::canonical(directory.GetPath()).string();
    EXPECT_EQ(GetFullPathName(directory / "l/../l/./y.txt"), root + "/d/y.txt");
    EXPECT_EQ(TFile::GetPathName(directory / "l/../l/./y.txt"), root + "/d");
    EXPECT_EQ(TFile::GetPathName(directory / "a\\b"), root + "/a"); // a separator, if an odd one
    EXPECT_EQ(TFile::GetPathName("/etc"), "");
    EXPECT_EQ(TFile::GetPathName("/"), "");
    EXPECT_KEST_THROW(GetFullPathName(directory / "gone"), EException, "Kest: realpath() failed");

    const char* const matches[][2] = {{"a/b.txt", "*.txt"}, {".profile", "*"}, {"a\\b", "a\\b"}, {"a\\x", "a\\*"}, {"[a", "[a"}};
    for (const auto& each : matches)
        EXPECT_TRUE(GetFileNameMatch(each[0], each[1])) << each[0];
    const char* const others[][2] = {{"A.TXT", "*.txt"}, {"a*", "a\\*"}, {"", "?"}, {"b", "[!a-c]"}};
    for (const auto& each : others)
        EXPECT_FALSE(GetFileNameMatch(each[0], each[1])) << each[0];
}

TEST(FileState, IsSeenThroughLinksAndHas64Bits) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"f=", "d/", "pipe|", "l->f", "ld->d", "gone->nothing"});
    ASSERT_EQ(::mknod((directory / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(TFile::TState(directory / "ld").GetType(), TFile::Directory);
    EXPECT_EQ(TFile::TState(directory / "pipe").GetType(), TFile::Fifo);
    EXPECT_EQ(TFile::TState("/dev/null").GetType(), TFile::Device);
    EXPECT_EQ(TFile::TState(directory / "socket").GetType(), TFile::Other);
    EXPECT_KEST_THROW(TFile::TState(directory / "gone"), EException, Described("getting file state failed: ", ENOENT));

    std::filesystem::resize_file(directory / "f", 5000000000U); // without blocks
    SetTimes(directory / "f", {8589934592, 0}, {8589934593, 999999999});
    const TFile::TState state(directory / "l");
    EXPECT_EQ(state.GetType(), TFile::Regular);
    EXPECT_EQ(state.GetSize(), 5000000000);
    EXPECT_EQ(state.GetLastAccessTime(), 8589934592.0);
    EXPECT_EQ(state.GetLastModificationTime(), 8589934593.0);
    EXPECT_EQ(state.GetLastChangeTime(), static_cast<double>(StatusOf(directory / "f").st_ctime));
}

TEST(FileState, SetTimeIsTruncatedTowardZeroOrRefused) {
    const TTemporaryDirectory directory;
    const std::string path = directory / "f";
    WriteFile(path, "x");
    for (const double time : {12.9, -0.5, -12.9, 8589934592.75}) {
        SCOPED_TRACE(time);
        SetTimes(path, {1000, 500}, {2000, 500});
        TFile::TState modification(path);
        TFile::TState access(modification);
        SetTimes(path, {3000, 0}, {4000, 0}); // which the objects do not see
        modification.SetLastModificationTime(time);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, static_cast<time_t>(time));
        EXPECT_EQ(StatusOf(path).st_mtim.tv_nsec, 0);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, 1000);
        EXPECT_EQ(modification.GetLastModificationTime(), std::trunc(time));
        access.SetLastAccessTime(time);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, static_cast<time_t>(time));
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, 2000);
        EXPECT_EQ(access.GetLastAccessTime(), std::trunc(time));
    }

    SetTimes(path, {1000, 0}, {2000, 0});
    TFile::TState state(path);
    const auto expectRefusal = [&state](double time, int code) {
        EXPECT_KEST_THROW(state.SetLastModificationTime(time), EException, Described("SetLastModificationTime failed: ", code)) << time;
        EXPECT_KEST_THROW(state.SetLastAccessTime(time), EException, Described("SetLastAccessTime failed: ", code)) << time;
    };
    const double past = 9223372036854775808.0; // 2 to the 63rd
    for (const double time : {past, std::nextafter(-past, -1e300), std::nan("")})
        expectRefusal(time, EOVERFLOW);
    EXPECT_EQ(state.GetLastModificationTime(), 2000.0); // object and file are as before
    EXPECT_EQ(state.GetLastAccessTime(), 1000.0);
    EXPECT_EQ(StatusOf(path).st_mtime, 2000);
    EXPECT_EQ(StatusOf(path).st_atime, 1000);
    std::filesystem::remove(path);
    expectRefusal(-12.5, ENOENT);
    EXPECT_EQ(state.GetLastModificationTime(), -12.0); // the object holds the new times, though the system failed
    EXPECT_EQ(state.GetLastAccessTime(), -12.0);
}

using TNames = std::vector<std::string>;

/// All that @p directory still delivers, in its order.
TNames Rest(TDirectory& directory) {
    TNames names;
    try {
        for (;;)
            names.push_back(directory.Read().GetName());
    } catch (const TDirectory::EEnd&) {
    }
    return names;
}

TNames Sorted(TNames names) {
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Directory, DeliversEachEntryAndThenTheEndUntilRewound) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"a=1", "d/", "l->gone", "p|", ".hidden=2", "d/below=3", "with blank\n=4", "\xC3\xA4=5", "\xFF=6"});
    TDirectory directory(place.GetPath());
    const TNames names = Rest(directory);
    EXPECT_EQ(Sorted(names), Sorted({".", "..", "a", "d", "l", "p", ".hidden", "with blank\n", "\xC3\xA4", "\xFF"}));
    for (int round = 0; round < 2; ++round) {
        errno = EIO; // of an earlier call, which says nothing about this one
        EXPECT_KEST_THROW(directory.Read(), TDirectory::EEnd, "Kest: end of directory");
    }
    directory.Rewind();
    EXPECT_EQ(directory.Read().GetName(), names[0]);
    directory.Rewind();
    EXPECT_EQ(Rest(directory), names);
}

TEST(Directory, ThreadsGetEachEntryOnce) {
    const TTemporaryDirectory place;
    TNames expected{".", ".."};
    for (int file = 0; file < 2000; ++file) {
        expected.push_back("a file whose name needs memory " + std::to_string(file));
        WriteFile(place / expected.back(), "");
    }
    TDirectory directory(place.GetPath());
    for (int round = 0; round < 10; ++round) {
        directory.Rewind();
        std::atomic<std::size_t> arrived{0};
        std::vector<std::future<TNames>> threads(8);
        for (auto& thread : threads)
            thread = std::async(std::launch::async, [&] {
                ++arrived;
                while (arrived < threads.size()) // so that all of them read
                    std::this_thread::yield();
                return Rest(directory);
            });
        TNames all;
        for (auto& thread : threads)
            for (const std::string& name : thread.get())
                all.push_back(name);
        EXPECT_TRUE(Sorted(all) == Sorted(expected)) << all.size() << " entries";
    }
}

TEST(Directory, IsCreatedRemovedAndOpened) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"file=1", "l->file", "full/", "full/x=1"});
    const mode_t old = ::umask(0);
    TDirectory::Create(place / "open");
    ::umask(old);
    EXPECT_EQ(StatusOf(place / "open").st_mode, S_IFDIR | 0755U);
    EXPECT_KEST_THROW(TDirectory::Create(place / "open"), EException, Described("unable to create directory: ", EEXIST));
    EXPECT_KEST_THROW(TDirectory::Remove(place / "full"), EException, Described("unable to remove directory: ", ENOTEMPTY));
    const std::string full = place / "full";
    EXPECT_KEST_THROW(TFile::Remove(full), EException, Described("unable to remove file '" + full + "': ", ENOTEMPTY));
    TFile::Remove(place / "l");
    TDirectory::Remove(place / "open");
    EXPECT_EQ(TreeOf(place.GetPath()), (TTree{"file=1", "full/", "full/x=1"}));

    const int descriptors = OpenDescriptors();
    EXPECT_KEST_THROW(TDirectory{place / "file"}, EException, Described("directory opening failed: ", ENOTDIR));
    { const TDirectory directory(place.GetPath()); }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(Directory, CurrentOneIsChangedAndTold) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"d/", "l->d", "lost/"});
    const std::string root = std::filesystem::canonical(place.GetPath()).string();
    InChild([&] {
        TDirectory::Change(place / "l/../l");
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        EXPECT_KEST_THROW(TDirectory::Change("gone"), EException, Described("unable to set current directory to gone: ", ENOENT));
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        TDirectory::Change("../lost");
        TDirectory::Remove(root + "/lost");
        EXPECT_KEST_THROW(TDirectory::GetCurrent(), EException, Described("unable to get current directory: ", ENOENT));
    });
}

} // namespace
