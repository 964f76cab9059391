#ifndef KEST_TESTS_FILESYSTEM_FILES_H
#define KEST_TESTS_FILESYSTEM_FILES_H

#include <models/temporary_directory.h>
#include <support/helper_thread.h>
#include <support/message.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kest::Test {

inline void Ensure(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error("the test cannot prepare " + what + ": " + std::strerror(errno));
}

inline void WriteFile(const std::string& path, const std::string& content) {
    Ensure((std::ofstream(path, std::ios::binary) << content << std::flush).good(), path);
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

/// Always the same bytes for one size.
inline std::string SomeBytes(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, 0);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

inline struct stat StatusOf(const std::string& path) {
    struct stat status {};
    Ensure(::stat(path.c_str(), &status) == 0, "the status of " + path);
    return status;
}

inline void SetTimes(const std::string& path, timespec access, timespec modification) {
    const timespec times[] = {access, modification};
    Ensure(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "the times of " + path);
}

/// What a directory holds, sorted, with one text for each entry: "d/" a directory, "f=content" a file, "l->target" a symbolic link, "p|" a
/// named pipe. Make() also takes "h&f", one more hard link of f.
using TTree = std::vector<std::string>;

inline void Make(const std::string& directory, const TTree& tree) {
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
            Ensure(::link((directory + '/' + entry.substr(end + 1)).c_str(), path.c_str()) == 0, entry); // follows no link
        else
            Ensure(::mkfifo(path.c_str(), 0600) == 0, entry);
    }
}

inline TTree TreeOf(const std::string& directory) {
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
/// "far", another file system of 64 KiB; "again" and "fixed", which show "near" again, "fixed" read-only. Nobody else sees
/// them, and they end with the thread.
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

} // namespace Kest::Test

#endif
