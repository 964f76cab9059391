#include <kest/filesystem/file.h>

#include "files.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

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

/// How long each race goes on: a moment in the checks, KEST_RACE_SECONDS where that is set.
std::chrono::milliseconds RaceTime() {
    const char* const seconds = std::getenv("KEST_RACE_SECONDS");
    return std::chrono::milliseconds(seconds == nullptr ? 700 : 1000 * std::strtol(seconds, nullptr, 10));
}

/// Two threads that begin together, again and again, for RaceTime(); @p check gets whether the first one's operation succeeded.
void Race(const std::function<void()>& prepare, const std::function<void()>& first, const std::function<void()>& second,
          const std::function<void(bool)>& check) {
    const auto end = std::chrono::steady_clock::now() + RaceTime();
    for (unsigned round = 0; std::chrono::steady_clock::now() < end && !testing::Test::HasFailure(); ++round) {
        prepare();
        std::atomic<int> ready{0};
        const auto begin = [&ready] {
            for (++ready; ready < 2;)
                std::this_thread::yield();
        };
        auto other = std::async(std::launch::async, [&] {
            begin();
            for (volatile unsigned wait = round % 97 * 30; wait > 0;) // at another moment each time
                wait = wait - 1;
            return Try(second);
        });
        begin();
        const bool isDone = Try(first);
        (void)other.get();
        check(isDone);
    }
}

TEST_F(WithMounts, MovesThatMeetLoseNothing) {
    InMounts([this] {
        const std::string a = Directory / "near/a", b = Directory / "near/b", to = Directory / "far/to";
        const std::string contents[] = {SomeBytes(9000), SomeBytes(9001)};
        const auto is = [](const std::string& path, const std::string& content) { return ReadFile(path) == content; };
        const auto prepare = [&] {
            std::filesystem::remove(to);
            WriteFile(a, contents[0]);
            WriteFile(b, contents[1]);
        };
        const auto move = [](const std::string& from, const std::string& destination) { return [=] { TFile::Rename(from, destination); }; };
        const auto update = [](const std::string& from, const std::string& destination) {
            return [=] { Ensure(::rename(from.c_str(), destination.c_str()) == 0 || errno == ENOENT, destination); };
        };
        // Two movers of one file; two files to one name; a new file in the place of the source.
        Race(prepare, move(a, to), move(a, to), [&](bool) { EXPECT_TRUE(is(to, contents[0]) || is(a, contents[0])); });
        Race(prepare, move(a, to), move(b, to), [&](bool isDone) {
            EXPECT_TRUE(is(to, contents[0]) || is(to, contents[1]));
            EXPECT_TRUE(isDone || is(a, contents[0]));
        });
        Race(prepare, move(a, to), update(b, a), [&](bool) { EXPECT_TRUE(is(to, contents[1]) || is(a, contents[1])); });
        for (const std::string& entry : MountedTree())
            EXPECT_EQ(entry.find(".kest-"), std::string::npos) << entry.substr(0, 50);
        // Within one file system: hard links of which one is replaced, a copy to what the source is being renamed to.
        const std::string link = Directory / "near/link";
        Race(
            [&] {
                prepare();
                std::filesystem::remove(link);
                std::filesystem::create_hard_link(a, link);
            },
            move(a, link), update(b, a), [&](bool) { EXPECT_TRUE(is(a, contents[1]) || is(link, contents[1])); });
        Race(
            prepare, [&] { TFile::Copy(a, b); }, update(a, b), [&](bool) { EXPECT_TRUE(is(a, contents[0]) || is(b, contents[0])); });
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
