#include <kest/filesystem/file.h>

#include <filesystem/files.h>
#include <support/sockets.h>

#include <atomic>
#include <csignal>

#include <sys/syscall.h>
#include <sys/wait.h>

using namespace Kest::Test;
using Kest::EException;
using Kest::System::TFile;

namespace {

std::atomic<int> RenameCalls{0};

} // namespace

/// Counts the library's calls. Symbols of the program win over those of the system's library.
extern "C" int rename(const char* from, const char* to) noexcept {
    ++RenameCalls;
    return static_cast<int>(::syscall(SYS_rename, from, to));
}

namespace {

std::string RenameFailure(const std::string& from, const std::string& to, int code) {
    return Described("rename failed: from '" + from + "' to '" + to + "': ", code);
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
        {{"a=1"}, "a", "b", 0, {"b=1"}},
        {{"a=1", "b=22"}, "a", "b", 0, {"b=1"}},
        {{"b=22"}, "a", "b", ENOENT, {"b=22"}},
        {{"a=1"}, "a", "d/b", ENOENT, {"a=1"}},
        // One entry by two names.
        {{"a=1"}, "a", "a", 0, {"a=1"}},
        {{"a=1"}, "a", "./a", 0, {"a=1"}},
        {{"a=1"}, ".//a", "a", 0, {"a=1"}},
        {{"a=1", "d/"}, "a", "d/../a", 0, {"a=1", "d/"}},
        {{"d/", "d/a=1", "l->d"}, "d/a", "l/a", 0, {"d/", "d/a=1", "l->d"}},
        {{"d/", "d/a=1", "l->d"}, "l/a", "d/a", 0, {"d/", "d/a=1", "l->d"}},
        {{"a=1", "h&a"}, "a", "a", 0, {"a=1", "h=1"}},
        {{"a=1", "h&a", "l->."}, "a", "l/a", 0, {"a=1", "h=1", "l->."}},
        // Two hard links of one file.
        {{"a=1", "h&a"}, "a", "h", 0, {"h=1"}},
        {{"a=1", "h&a", "i&a"}, "h", "i", 0, {"a=1", "i=1"}},
        {{"a=1", "d/", "d/a&a"}, "a", "d/a", 0, {"d/", "d/a=1"}},
        {{"a=1", "h&a", "l->."}, "l/a", "h", 0, {"h=1", "l->."}},
        {{"a=1", "l->a", "m&l"}, "l", "m", 0, {"a=1", "m->a"}}, // two hard links of a symbolic link
        {{"l->gone", "m&l"}, "l", "m", 0, {"m->gone"}},
        // Links are not followed.
        {{"a=1", "l->a"}, "l", "m", 0, {"a=1", "m->a"}},
        {{"a=1", "l->a"}, "a", "l", 0, {"l=1"}},
        {{"a=1", "b=2", "l->b"}, "a", "l", 0, {"b=2", "l=1"}},
        {{"a=1", "l->a", "m->a"}, "l", "m", 0, {"a=1", "m->a"}},
        // Directories.
        {{"d/", "d/a=1"}, "d", "e", 0, {"e/", "e/a=1"}},
        {{"d/", "d/a=1"}, "d", "d", 0, {"d/", "d/a=1"}},
        {{"d/", "d/a=1"}, "d", "./d", 0, {"d/", "d/a=1"}},
        {{"d/", "d/a=1", "e/"}, "d", "e", 0, {"e/", "e/a=1"}},
        {{"d/", "d/a=1", "e/", "e/b=2"}, "d", "e", ENOTEMPTY, {"d/", "d/a=1", "e/", "e/b=2"}},
        {{"d/", "d/a=1"}, "d", "d/e", EINVAL, {"d/", "d/a=1"}},
        {{"d/", "d/a=1", "b=2"}, "d", "b", ENOTDIR, {"b=2", "d/", "d/a=1"}},
        {{"a=1", "e/"}, "a", "e", EISDIR, {"a=1", "e/"}},
    };
    for (const auto& each : cases) {
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), each.Before);
        const std::string from = directory / each.From;
        const std::string to = directory / each.To;
        SCOPED_TRACE(testing::PrintToString(each.Before) + " " + each.From + " to " + each.To);
        RenameCalls = 0;
        EXPECT_EQ(OutcomeOf([&] { TFile::Rename(from, to); }), each.Code == 0 ? "" : RenameFailure(from, to, each.Code));
        EXPECT_EQ(RenameCalls, each.Code == 0 ? 1 : 11) << "attempts";
        EXPECT_EQ(TreeOf(directory.GetPath()), each.After);
    }
}

class FileRenameOverMounts : public WithMounts {};

TEST_F(FileRenameOverMounts, Table) {
    const std::string large = SomeBytes(FarSize + 1);
    const struct {
        TTree Before;
        std::string From, To, Message; ///< without a message it succeeds
        TTree After;
    } cases[] = {
        {{"near/a=1"}, "near/a", "far/b", "", {"far/b=1"}},
        {{"near/a="}, "near/a", "far/b", "", {"far/b="}},
        {{"near/a=1", "far/b=22"}, "near/a", "far/b", "", {"far/b=1"}},
        {{"near/a=1", "near/l->a"}, "near/l", "far/b", "", {"far/b=1", "near/a=1"}},
        {{"near/a=1", "near/h&near/a"}, "near/a", "far/a", "", {"far/a=1", "near/h=1"}},
        // What stands at the destination is replaced, and nothing that is reached through it is written to.
        {{"near/a=1", "far/b=22", "far/l->b"}, "near/a", "far/l", "", {"far/b=22", "far/l=1"}},
        {{"near/a=1", "far/b=22", "far/h&far/b"}, "near/a", "far/h", "", {"far/b=22", "far/h=1"}},
        {{"near/a=1", "far/l->gone"}, "near/a", "far/l", "", {"far/l=1"}},
        {{"near/a=1", "far/l->../near/a"}, "near/a", "far/l", "", {"far/l=1"}},
        {{"near/a=1", "near/d/", "far/l->../near/d"}, "near/a", "far/l", "", {"far/l=1", "near/d/"}},
        {{"near/a=1", "far/p|"}, "near/a", "far/p", "", {"far/p=1"}},
        // The copy fails.
        {{"near/a=" + large}, "near/a", "far/b", CopyFailed, {"near/a=" + large}},
        {{"near/a=" + large, "far/b=22"}, "near/a", "far/b", CopyFailed, {"near/a=" + large}},
        {{"near/a=" + large, "far/b=22", "far/l->b"}, "near/a", "far/l", CopyFailed, {"far/b=22", "near/a=" + large}},
        {{"near/a=1", "far/d/"}, "near/a", "far/d", CopyFailed, {"far/d/", "near/a=1"}},
        {{"near/a=1", "far/d/", "far/d/b=2"}, "near/a", "far/d", CopyFailed, {"far/d/", "far/d/b=2", "near/a=1"}},
        {{"near/d/", "near/d/a=1"}, "near/d", "far/d", CopyFailed, {"near/d/", "near/d/a=1"}},
        {{"near/d/", "far/b=22"}, "near/d", "far/b", CopyFailed, {"far/b=22", "near/d/"}},
        {{"near/l->gone", "far/b=22"}, "near/l", "far/b", CopyFailed, {"far/b=22", "near/l->gone"}},
        {{"near/l->gone", "far/m->b"}, "near/l", "far/m", CopyFailed, {"far/m->b", "near/l->gone"}},
        // The copy may be made, the source not removed.
        {{"near/a=1"}, "fixed/a", "far/b", RemoveFailed, {"near/a=1"}},
        {{"near/a=1", "far/b=22"}, "fixed/a", "far/b", RemoveFailed, {"near/a=1"}},
        // One file by two mounts.
        {{"near/a=1"}, "near/a", "again/a", CopyFailed, {"near/a=1"}},
        {{"near/a=1"}, "again/a", "near/a", CopyFailed, {"near/a=1"}},
        {{"near/a=1", "near/h&near/a"}, "near/a", "again/h", CopyFailed, {"near/a=1", "near/h=1"}},
        {{"near/a=1", "near/h&near/a", "near/l->a"}, "near/l", "again/a", CopyFailed, {"near/a=1", "near/h=1", "near/l->a"}},
        {{"near/a=1", "near/l->a", "near/m&near/l"}, "near/l", "again/m", CopyFailed, {"near/a=1", "near/l->a", "near/m->a"}},
        {{"near/a=1"}, "near/a", "again/b", "", {"near/b=1"}}, // there is a way, if not the shortest
        {{"near/a=1", "near/b=22"}, "near/a", "again/b", "", {"near/b=1"}},
    };
    for (const auto& each : cases) {
        InMounts([&] {
            SCOPED_TRACE(each.From + " to " + each.To + " shall give " + testing::PrintToString(each.After).substr(0, 200));
            Make(Directory.GetPath(), each.Before);
            const int before = OpenDescriptors();
            RenameCalls = 0;
            EXPECT_EQ(OutcomeOf([&] { TFile::Rename(Directory / each.From, Directory / each.To); }), each.Message);
            EXPECT_EQ(RenameCalls, each.Message.empty() ? 1 : 11) << "attempts";
            EXPECT_TRUE(MountedTree() == each.After) << testing::PrintToString(MountedTree()).substr(0, 200);
            EXPECT_EQ(OpenDescriptors(), before);
        });
    }
}

TEST_F(FileRenameOverMounts, ContentAndTimeMove) {
    InMounts([this] {
        WriteFile(Directory / "far/a", SomeBytes(50001));
        SetTimes(Directory / "far/a", {1000, 0}, {8589934592, 750000000});
        TFile::Rename(Directory / "far/a", Directory / "near/a");
        EXPECT_TRUE(ReadFile(Directory / "near/a") == SomeBytes(50001));
        EXPECT_EQ(StatusOf(Directory / "near/a").st_mtime, 8589934592);
        EXPECT_FALSE(std::filesystem::exists(Directory / "far/a"));
    });
}

TEST_F(FileRenameOverMounts, MissingPrivilegeLosesNothing) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "near/d/", "near/d/h&near/a", "far/b=2", "far/s=3", "far/d/", "far/d/h&far/s",
                                   "far/d/l->../s", "near/secret=4", "far/c=5"});
        SetMode(Directory / "near/secret", 0600);
        for (const char* name : {"near/d", "far/d"})
            SetMode(Directory / name, 0755); // where others change nothing
        for (const char* name : {"far/b", "far/s"})
            SetMode(Directory / name, 0666); // but the time is for its owner to set
        const TWithoutPrivilege nobody;
        const struct {
            std::string From, To, Message;
        } cases[] = {
            {"near/a", "far/b", CopyFailed},     {"near/a", "far/d/h", CopyFailed},
            {"near/a", "far/d/l", CopyFailed},   {"near/secret", "far/c", CopyFailed},
            {"near/d/h", "far/e", RemoveFailed}, {"near/d/h", "near/a", ""}, // the system renames one hard link to another before it looks
        };
        for (const auto& each : cases) {
            const std::string from = Directory / each.From;
            const std::string to = Directory / each.To;
            EXPECT_KEST_THROW(Kest::System::_RenameHelper(from, to), EException,
                              each.Message.empty() ? RenameFailure(from, to, EACCES) : each.Message);
        }
        (void)::setfsuid(0); // to see everything
        EXPECT_EQ(MountedTree(), (TTree{"far/c=5", "far/d/", "far/d/h=3", "far/d/l->../s", "far/s=3", "near/a=1", "near/d/", "near/d/h=1",
                                        "near/secret=4"}));
    });
}

TEST_F(FileRenameOverMounts, CancelledMoveLeavesTheSourceAndNoDestination) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/p|", "far/b=22"});
        const int pipe = ::open((Directory / "near/p").c_str(), O_RDWR | O_CLOEXEC);
        WriteFile(Directory / "near/p", "abc");
        const int before = OpenDescriptors();
        TBlockingPoint blocking;
        TFunctionThread thread([&] { // sees the mounts of the thread that makes it
            blocking.Enter();
            TFile::Rename(Directory / "near/p", Directory / "far/b");
        });
        thread.Start();
        EXPECT_TRUE(blocking.WaitUntilBlocked());
        thread.Cancel();
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_EQ(MountedTree(), TTree{"near/p|"});
        ::close(pipe);
    });
}

TEST_F(FileRenameOverMounts, FailedAllocationLeavesTheSourceAndNoHalfDestination) {
    InMounts([this] {
        const std::string from = Directory / "near/a name that needs memory of its own";
        const std::string to = Directory / "far/a name that needs memory of its own";
        WriteFile(from, SomeBytes(20000));
        long successes = 0;
        for (bool isMoved = false; !isMoved && !testing::Test::HasFailure(); ++successes) {
            try {
                const TFailingNew failing(successes);
                TFile::Rename(from, to);
                isMoved = true;
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(ReadFile(from) == SomeBytes(20000)) << successes;
                EXPECT_FALSE(std::filesystem::exists(to)) << successes;
            }
        }
        EXPECT_GT(successes, 4);
        EXPECT_TRUE(ReadFile(to) == SomeBytes(20000));
    });
}

/// A child renames as fast as it can and is killed, again and again. Whenever one looks, before and after that, the destination is there
/// and is one of the two files as a whole.
TEST(FileRename, DestinationIsWholeWheneverTheProcessIsKilled) {
    const TTemporaryDirectory directory;
    const std::string contents[] = {SomeBytes(9000), SomeBytes(9001)};
    for (const char* name : {"0", "1", "to"})
        WriteFile(directory / name, contents[*name == '1']);
    const auto isWhole = [&] {
        const std::string content = ReadFile(directory / "to");
        return content == contents[0] || content == contents[1];
    };
    std::mt19937 random(1);
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
        for (auto left = random() % 100; left > 0 && !HasFailure(); --left)
            EXPECT_TRUE(isWhole());
        ::kill(child, SIGKILL);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the child ended by itself";
        EXPECT_TRUE(isWhole());
    }
}

} // namespace
