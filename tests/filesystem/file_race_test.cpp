#include <kest/filesystem/descriptor.h>
#include <kest/filesystem/file.h>

#include "files.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

bool Try(const std::function<void()>& action) {
    try {
        action();
        return true;
    } catch (const EException&) {
        return false;
    }
}

/// How long each race goes on: a second in the checks, KEST_RACE_SECONDS where that is set.
std::chrono::milliseconds RaceTime() {
    const char* const seconds = std::getenv("KEST_RACE_SECONDS");
    return std::chrono::milliseconds(1000 * (seconds == nullptr ? 1 : std::strtol(seconds, nullptr, 10)));
}

/// Runs threads that begin together, again and again, for RaceTime(); @p check gets which actions succeeded.
void Race(const std::function<void()>& prepare, const std::vector<std::function<void()>>& actions,
          const std::function<void(const std::vector<bool>&)>& check) {
    const auto end = std::chrono::steady_clock::now() + RaceTime();
    for (unsigned round = 0; std::chrono::steady_clock::now() < end && !testing::Test::HasFailure(); ++round) {
        prepare();
        std::atomic<std::size_t> ready{0};
        std::vector<std::future<bool>> results;
        for (const auto& action : actions)
            results.push_back(std::async(std::launch::async, [&, wait = results.size() * 30 * (round % 97)]() mutable {
                for (++ready; ready < actions.size();)
                    std::this_thread::yield();
                for (volatile std::size_t left = wait; left > 0;) // at another moment each time
                    left = left - 1;
                return Try(action);
            }));
        std::vector<bool> isDone;
        for (auto& result : results)
            isDone.push_back(result.get());
        check(isDone);
    }
}

TEST_F(WithMounts, MovesThatMeetLoseNothing) {
    InMounts([this] {
        const std::string a = Directory / "near/a", b = Directory / "near/b", link = Directory / "near/link", to = Directory / "far/to",
                          other = Directory / "far/other", away = Directory / "far/away";
        const std::string contents[] = {SomeBytes(9000), SomeBytes(9001), SomeBytes(9002), SomeBytes(9003)};
        const auto isIn = [&](std::size_t index, const std::vector<std::string>& paths) {
            return std::any_of(paths.begin(), paths.end(), [&](const auto& path) { return ReadFile(path) == contents[index]; });
        };
        const auto prepare = [&] {
            for (const std::string& path : {link, away})
                std::filesystem::remove(path);
            Make(Directory.GetPath(),
                 {"near/a=" + contents[0], "near/b=" + contents[1], "far/to=" + contents[2], "far/other=" + contents[3]});
        };
        const auto move = [](const std::string& from, const std::string& destination) { return [=] { TFile::Rename(from, destination); }; };
        const auto update = [](const std::string& from, const std::string& destination) {
            return [=] { Ensure(::rename(from.c_str(), destination.c_str()) == 0 || errno == ENOENT, destination); };
        };
        // Three movers of one file; two files to one name; a new file in the place of the source.
        Race(prepare, {move(a, to), move(a, to), move(a, away)}, [&](const auto& isDone) {
            EXPECT_TRUE(isIn(0, {a, to, away}));
            EXPECT_LE(std::count(isDone.begin(), isDone.end(), true), 1);
        });
        Race(prepare, {move(a, to), move(b, to)}, [&](const auto& isDone) {
            EXPECT_TRUE(isIn(0, {to}) || isIn(1, {to}));
            EXPECT_TRUE(isDone[0] || isIn(0, {a}));
            EXPECT_TRUE(isDone[1] || isIn(1, {b}));
        });
        Race(prepare, {move(a, to), update(b, a)}, [&](const auto&) { EXPECT_TRUE(isIn(1, {a, to})); });
        // The destination is replaced, moved away and removed; the source is removed.
        Race(prepare, {move(a, to), update(other, to)}, [&](const auto& isDone) {
            EXPECT_TRUE(isIn(0, {to}) || isIn(3, {to}));
            EXPECT_TRUE(isDone[0] || isIn(0, {a}));
        });
        Race(prepare, {move(a, to), update(to, away)}, [&](const auto&) { EXPECT_TRUE(isIn(0, {a, to, away})); });
        Race(prepare, {move(a, to), [&] { TFile::Remove(to); }}, [&](const auto& isDone) { EXPECT_TRUE(isDone[0] || isIn(0, {a})); });
        Race(prepare, {move(a, to), [&] { TFile::Remove(a); }},
             [&](const auto& isDone) { EXPECT_TRUE(isIn(0, {to}) || (!isDone[0] && isDone[1])); });
        // Within one file system: hard links of which one is replaced, a copy to what the source is being renamed to.
        const auto prepareLink = [&] {
            prepare();
            std::filesystem::create_hard_link(a, link);
        };
        Race(prepareLink, {move(a, link), update(b, a)}, [&](const auto&) { EXPECT_TRUE(isIn(1, {a, link})); });
        Race(prepare, {[&] { TFile::Copy(a, b); }, update(a, b)}, [&](const auto&) { EXPECT_TRUE(isIn(0, {a, b})); });
        for (const std::string& entry : MountedTree())
            EXPECT_EQ(entry.find(".kest-"), std::string::npos) << entry.substr(0, 50);
    });
}

// The folder of the source needs no room, and nothing is left where entries cannot be removed.
TEST_F(WithMounts, MoveNeedsNoInodeAndLittersNoFolder) {
    InMounts([this] {
        const std::string near = Directory / "near", far = Directory / "far";
        Make(Directory.GetPath(), {"near/a=1", "near/b=2", "near/h&near/b", "far/a=old"});
        Ensure(::mount(nullptr, near.c_str(), nullptr, MS_REMOUNT, "size=4m,nr_inodes=4") == 0, "the last inode");
        TFile::Rename(near + "/b", near + "/h");
        WriteFile(near + "/c", "");
        TFile::Rename(near + "/a", far + "/a");
        EXPECT_EQ(MountedTree(), (TTree{"far/a=1", "near/c=", "near/h=2"}));
        for (const std::string& folder : {near, far}) {
            const _TDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_CLOEXEC));
            int flags = FS_APPEND_FL;
            if (::ioctl(descriptor.Get(), FS_IOC_SETFLAGS, &flags) == 0) { // not all versions of this file system have it
                EXPECT_FALSE(Try([&] { TFile::Rename(near + "/h", far + "/b"); })) << folder;
                EXPECT_EQ(MountedTree(), (TTree{"far/a=1", "near/c=", "near/h=2"})) << folder;
                flags = 0;
                (void)::ioctl(descriptor.Get(), FS_IOC_SETFLAGS, &flags);
            }
        }
    });
}

TEST_F(WithMounts, OldDestinationSurvivesASourceThatCannotBeReadAndEveryLimit) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/memory->/proc/self/mem", "near/large=" + SomeBytes(9000), "far/to=old"});
        Ensure(::mknod((Directory / "near/socket").c_str(), S_IFSOCK | 0600, 0) == 0, "a socket");
        Ensure(::mknod((Directory / "near/device").c_str(), S_IFCHR | 0600, makedev(240, 77)) == 0, "a device without a driver");
        const auto expectFailure = [&](const char* name) {
            EXPECT_FALSE(Try([&] { TFile::Rename(Directory / name, Directory / "far/to"); })) << name;
        };
        for (const char* name : {"near/memory", "near/socket", "near/device"})
            expectFailure(name);
        auto* const before = std::signal(SIGXFSZ, SIG_IGN);
        for (const auto limit : {RLIMIT_NOFILE, RLIMIT_FSIZE}) {
            rlimit old{};
            (void)::getrlimit(limit, &old);
            const rlimit low{limit == RLIMIT_FSIZE ? rlim_t{5000} : rlim_t{0}, old.rlim_max};
            (void)::setrlimit(limit, &low);
            expectFailure("near/large");
            (void)::setrlimit(limit, &old);
        }
        (void)std::signal(SIGXFSZ, before);
        EXPECT_EQ(TreeOf(Directory / "far"), TTree{"to=old"});
        EXPECT_TRUE(ReadFile(Directory / "near/large") == SomeBytes(9000));
    });
}

TEST_F(WithMounts, PermissionsAreThoseOfANewFileOrOfTheOneOverwritten) {
    InMounts([this] {
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/b";
        Ensure(::unshare(CLONE_FS) == 0, "a mask of its own");
        ::umask(0);
        const auto mode = [&to] { return StatusOf(to).st_mode & 07777U; };
        WriteFile(from, "1");
        Ensure(::chmod(from.c_str(), 0711) == 0, from);
        TFile::Copy(from, to);
        EXPECT_EQ(mode(), 0666U);
        Ensure(::chmod(to.c_str(), 0604) == 0, to);
        TFile::Copy(from, to);
        EXPECT_EQ(mode(), 0604U);
        TFile::Rename(from, to);
        EXPECT_EQ(mode(), 0666U);
    });
}

} // namespace
