#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>

#include <filesystem/files.h>
#include <support/descriptors.h>
#include <support/failing_new.h>
#include <support/helper_thread.h>
#include <support/message.h>
#include <support/sockets.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

std::string CopyError(const std::string& from, const std::string& to) {
    return "Kest: file copy error: from " + from + " to " + to;
}

TEST(FileCopy, ContentAndModificationTimeAreThoseOfTheSource) {
    const TTemporaryDirectory directory;
    const std::string from = directory / "from";
    const std::string to = directory / "to";
    for (const std::size_t size : {0, 1, 4095, 4096, 4097, 8190, 8191, 8192, 8193, 16384, 1 << 20}) {
        for (const std::string& old : {std::string(), std::string("old"), std::string(size + 1000, 'x')}) {
            SCOPED_TRACE(std::to_string(size) + " over " + std::to_string(old.size()));
            std::filesystem::remove(to);
            if (!old.empty())
                WriteFile(to, old);
            WriteFile(from, SomeBytes(size));
            const timespec times[] = {{1000, 0}, {8589934592 + static_cast<time_t>(size), 750000000}};
            ASSERT_EQ(::utimensat(AT_FDCWD, from.c_str(), times, 0), 0);
            TFile::Copy(from, to);
            EXPECT_TRUE(ReadFile(to) == SomeBytes(size)); // not EXPECT_EQ, which would print it
            EXPECT_EQ(StatusOf(to).st_mtim.tv_sec, times[1].tv_sec);
            EXPECT_EQ(StatusOf(to).st_mtim.tv_nsec, 0);
            EXPECT_TRUE(ReadFile(from) == SomeBytes(size));
        }
    }
}

TEST(FileCopy, SourceWhoseSizeIsNotKnownIsCopiedToItsEnd) {
    const TTemporaryDirectory directory;
    for (const char* source : {"/proc/version", "/proc/filesystems"}) { // of which the system says that they are empty
        TFile::Copy(source, directory / "to");
        EXPECT_FALSE(ReadFile(source).empty());
        EXPECT_EQ(ReadFile(directory / "to"), ReadFile(source));
    }
}

TEST(FileCopy, FailureLeavesWhatIsDocumented) {
    const std::string stateFailure = std::string("Kest: getting file state failed: ") + std::strerror(ENOENT);
    const struct {
        TTree Before;
        std::string From, To;
        bool IsStateFailure;
        TTree After;
    } cases[] = {
        {{"b=22"}, "a", "b", true, {"b=22"}},
        {{"a->gone", "b=22"}, "a", "b", true, {"a->gone", "b=22"}},
        {{"d/"}, "d", "b", false, {"b=", "d/"}},
        {{"a=1", "d/"}, "a", "d", false, {"a=1", "d/"}},
        {{"a=1"}, "a", "gone/b", false, {"a=1"}},
        // One file, by whatever roads.
        {{"a=1"}, "a", "a", false, {"a=1"}},
        {{"a=1"}, "a", "./a", false, {"a=1"}},
        {{"a=1", "d/"}, "d/../a", "a", false, {"a=1", "d/"}},
        {{"a=1", "l->a"}, "a", "l", false, {"a=1", "l->a"}},
        {{"a=1", "l->a"}, "l", "a", false, {"a=1", "l->a"}},
        {{"a=1", "l->."}, "l/a", "a", false, {"a=1", "l->."}},
        {{"a=1", "h&a"}, "a", "h", false, {"a=1", "h=1"}},
    };
    for (const auto& each : cases) {
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), each.Before);
        const std::string from = directory / each.From;
        const std::string to = directory / each.To;
        SCOPED_TRACE(each.From + " to " + each.To);
        const int before = OpenDescriptors();
        EXPECT_KEST_THROW(TFile::Copy(from, to), EException, each.IsStateFailure ? stateFailure : CopyError(from, to));
        EXPECT_EQ(TreeOf(directory.GetPath()), each.After);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST(FileCopy, DiskWithoutAnyRoomIsTheCopyError) {
    const TTemporaryDirectory directory;
    for (const std::size_t size : {1, 1023, 1024, 8190, 8191, 8192, 8193, 20000, 1 << 20}) {
        SCOPED_TRACE(size);
        WriteFile(directory / "from", SomeBytes(size));
        EXPECT_KEST_THROW(TFile::Copy(directory / "from", "/dev/full"), EException, CopyError(directory / "from", "/dev/full"));
    }
}

TEST(FileCopy, SourceOrDestinationThatMayNotBeUsedIsTheCopyError) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only the superuser can give its privileges up";
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"secret=1", "readable=2", "writable="});
    std::filesystem::permissions(directory.GetPath(), std::filesystem::perms(0755));
    std::filesystem::permissions(directory / "secret", std::filesystem::perms(0600));
    std::filesystem::permissions(directory / "writable", std::filesystem::perms(0666));
    const TWithoutPrivilege nobody;
    const std::string secret = directory / "secret";
    const std::string readable = directory / "readable";
    const std::string writable = directory / "writable";
    EXPECT_KEST_THROW(TFile::Copy(secret, writable), EException, CopyError(secret, writable));
    EXPECT_KEST_THROW(TFile::Copy(readable, directory / "new"), EException, CopyError(readable, directory / "new"));
    // Writing is allowed, setting the time is the owner's.
    EXPECT_KEST_THROW(TFile::Copy(readable, writable), EException,
                      std::string("Kest: SetLastModificationTime failed: ") + std::strerror(EPERM));
    EXPECT_EQ(TreeOf(directory.GetPath()).back(), "writable=2");
}

class FileCopyOverMounts : public WithMounts {};

TEST_F(FileCopyOverMounts, DiskThatFillsUpIsTheCopyError) {
    InMounts([this] {
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/a";
        for (const std::size_t surplus : {0, 1, 100, 8192, 100000}) {
            SCOPED_TRACE(surplus);
            WriteFile(from, SomeBytes(FarSize + surplus));
            if (surplus == 0)
                TFile::Copy(from, to);
            else
                EXPECT_KEST_THROW(TFile::Copy(from, to), EException, CopyError(from, to));
            EXPECT_TRUE(ReadFile(to) == SomeBytes(FarSize + surplus).substr(0, FarSize)) << "what was written stays";
        }
    });
}

TEST_F(FileCopyOverMounts, OneFileByTwoMountsIsNotTouched) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "near/h&near/a"});
        for (const std::string to : {"again/a", "again/h"})
            EXPECT_KEST_THROW(TFile::Copy(Directory / "near/a", Directory / to), EException,
                              CopyError(Directory / "near/a", Directory / to));
        EXPECT_EQ(MountedTree(), (TTree{"near/a=1", "near/h=1"}));
    });
}

TEST(FileCopy, CancelledThreadUnwindsAndLeaksNothing) {
    const struct {
        const char* Name;
        std::string From, To;
        std::size_t Written; ///< to the pipe before, when it is the source; otherwise the size of the source
        bool IsPipeOpen;
    } cases[] = {
        {"opening the source", "pipe", "to", 0, false},
        {"opening the destination", "from", "pipe", 10, false},
        {"looking whether there is anything", "pipe", "to", 0, true},
        {"reading on", "pipe", "to", 3000, true},
        {"writing", "from", "pipe", 1 << 20, true},
        {"writing the last bytes", "from", "pipe", 65536 + 100, true}, // the pipe holds 65536
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Name);
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), {"pipe|"});
        if (each.From == "from")
            WriteFile(directory / "from", SomeBytes(each.Written));
        const int before = OpenDescriptors();
        const int pipe = each.IsPipeOpen ? ::open((directory / "pipe").c_str(), O_RDWR | O_CLOEXEC) : -1;
        if (each.From == "pipe" && each.IsPipeOpen) {
            ASSERT_EQ(::write(pipe, SomeBytes(each.Written).data(), each.Written), static_cast<ssize_t>(each.Written));
        }
        TBlockingPoint blocking;
        TGate unwound;
        TFunctionThread thread([&] {
            struct TUnwinding {
                TGate& Gate;
                ~TUnwinding() { Gate.Open(); }
            } const unwinding{unwound};
            blocking.Enter();
            TFile::Copy(directory / each.From, directory / each.To);
        });
        thread.Start();
        EXPECT_TRUE(blocking.WaitUntilBlocked());
        thread.Cancel();
        const bool isUnwound = unwound.WaitFor(std::chrono::seconds(5));
        EXPECT_TRUE(isUnwound) << "still blocked, though cancelled";
        std::string rest(1 << 20, 0);
        if (!isUnwound && pipe != -1)
            (void)::read(pipe, rest.data(), rest.size()); // so that this test ends
        EXPECT_EQ(thread.WaitFor(), -1);
        if (pipe != -1)
            ::close(pipe);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST(FileCopy, FailedAllocationLeavesTheSourceAndLeaksNothing) {
    const TTemporaryDirectory directory;
    const std::string from = directory / "a source whose name needs memory of its own";
    const std::string to = directory / "a destination whose name needs memory of its own";
    WriteFile(from, SomeBytes(10000));
    const int descriptors = OpenDescriptors();
    long successes = 0;
    for (bool isCopied = false; !isCopied; ++successes) {
        const long blocks = BlocksInUse;
        try {
            const TFailingNew failing(successes);
            TFile::Copy(from, to);
            isCopied = true;
        } catch (const std::bad_alloc&) {
        } catch (const EException&) { // a stream takes what its buffer throws for a failure of its own
        }
        EXPECT_EQ(BlocksInUse, blocks) << successes;
        EXPECT_EQ(OpenDescriptors(), descriptors) << successes;
    }
    EXPECT_GT(successes, 3);
    EXPECT_TRUE(ReadFile(from) == SomeBytes(10000));
    EXPECT_TRUE(ReadFile(to) == SomeBytes(10000));
}

TEST(FileRemove, RemovesFilesLinksAndEmptyDirectories) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"a=1", "b=2", "l->a", "empty/", "full/", "full/c=3"});
    for (const char* name : {"l", "b", "empty"})
        TFile::Remove(directory / name);
    EXPECT_EQ(TreeOf(directory.GetPath()), (TTree{"a=1", "full/", "full/c=3"}));
    const struct {
        std::string Name;
        int Code;
    } cases[] = {{"gone", ENOENT}, {"full", ENOTEMPTY}, {"a/x", ENOTDIR}};
    for (const auto& each : cases)
        EXPECT_KEST_THROW(TFile::Remove(directory / each.Name), EException,
                          "Kest: unable to remove file '" + (directory / each.Name) + "': " + std::strerror(each.Code));
}

TEST(FileNames, FullAndPathNamesAreCanonical) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"d/", "d/y.txt=1", "l->d", "f=1"});
    WriteFile(directory / "a\\b", "");
    const std::string root = std::filesystem::canonical(directory.GetPath()).string();
    const struct {
        std::string Path, Full, Folder;
    } cases[] = {
        {directory / "d/y.txt", root + "/d/y.txt", root + "/d"},
        {directory / "l/../l/./y.txt", root + "/d/y.txt", root + "/d"},
        {directory / "l", root + "/d", root},
        {directory / "a\\b", root + "/a\\b", root + "/a"}, // a separator, if an odd one
        {"/etc/..//etc/", "/etc", ""},
        {"/", "/", ""},
        {"/proc/self/cwd", std::filesystem::current_path().string(), std::filesystem::current_path().parent_path().string()},
        {".", std::filesystem::current_path().string(), std::filesystem::current_path().parent_path().string()},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(GetFullPathName(each.Path), each.Full);
        EXPECT_EQ(TFile::GetPathName(each.Path), each.Folder);
    }
    for (const std::string& path : {directory / "gone", directory / "f/", std::string()}) {
        EXPECT_KEST_THROW(GetFullPathName(path), EException, "Kest: realpath() failed");
        EXPECT_KEST_THROW(TFile::GetPathName(path), EException, "Kest: realpath() failed");
    }
}

TEST(FileNames, MatchByWildcard) {
    const struct {
        const char *Name, *Pattern;
        bool IsMatch;
    } cases[] = {
        {"a/b.txt", "*.txt", true},
        {".profile", "*", true},
        {".profile", "?profile", true},
        {"a\\b", "a\\b", true},
        {"ab", "a\\b", false},
        {"A.TXT", "*.txt", false},
        {"a*", "a\\*", false},
        {"a\\x", "a\\*", true},
        {"", "", true},
        {"", "*", true},
        {"", "?", false},
        {"a/b", "a?b", true},
        {"b", "[a-c]", true},
        {"b", "[!a-c]", false},
        {"[a", "[a", true},
        {"a", "[a", false},
        {"a.txt", "a.tx", false},
        {"/", "[/]", true},
    };
    for (const auto& each : cases)
        EXPECT_EQ(GetFileNameMatch(each.Name, each.Pattern), each.IsMatch) << each.Name << " by " << each.Pattern;
}

} // namespace
