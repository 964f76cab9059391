#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>

#include <filesystem/files.h>
#include <support/sockets.h>

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
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 8190U, 8191U, 8192U, 8193U, 16384U, 1U << 20})
        for (const std::size_t old : {std::size_t{0}, std::size_t{3}, size + 1000}) {
            SCOPED_TRACE(std::to_string(size) + " over " + std::to_string(old));
            WriteFile(to, std::string(old, 'x'));
            if (old == 0)
                std::filesystem::remove(to);
            WriteFile(from, SomeBytes(size));
            SetTimes(from, {1000, 0}, {8589934592, 750000000});
            TFile::Copy(from, to);
            EXPECT_TRUE(ReadFile(to) == SomeBytes(size)); // not EXPECT_EQ, which would print it
            EXPECT_EQ(StatusOf(to).st_mtim.tv_sec, 8589934592);
            EXPECT_EQ(StatusOf(to).st_mtim.tv_nsec, 0);
        }
    TFile::Copy("/proc/filesystems", to); // of which the system says that it is empty
    EXPECT_FALSE(ReadFile(to).empty());
    EXPECT_EQ(ReadFile(to), ReadFile("/proc/filesystems"));
}

TEST(FileCopy, FailureLeavesWhatIsDocumented) {
    const std::string stateFailure = Described("getting file state failed: ", ENOENT);
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

class FileCopyOverMounts : public WithMounts {};

TEST_F(FileCopyOverMounts, FullDiskIsTheCopyError) {
    InMounts([this] {
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/a";
        for (const std::size_t size : {std::size_t{1}, std::size_t{1023}, std::size_t{8191}, std::size_t{8192}, FarSize, FarSize + 1,
                                       FarSize + 100, FarSize + 8192, FarSize + 100000}) {
            SCOPED_TRACE(size);
            WriteFile(from, SomeBytes(size));
            EXPECT_EQ(OutcomeOf([&] { TFile::Copy(from, "/dev/full"); }), CopyError(from, "/dev/full"));
            EXPECT_EQ(OutcomeOf([&] { TFile::Copy(from, to); }), size <= FarSize ? "" : CopyError(from, to));
            EXPECT_TRUE(ReadFile(to) == SomeBytes(size).substr(0, FarSize)) << "what was written stays";
        }
    });
}

TEST_F(FileCopyOverMounts, OneFileByTwoMountsIsNotTouched) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "near/h&near/a"});
        const std::string from = Directory / "near/a";
        for (const std::string& to : {Directory / "again/a", Directory / "again/h"})
            EXPECT_KEST_THROW(TFile::Copy(from, to), EException, CopyError(from, to));
        EXPECT_EQ(MountedTree(), (TTree{"near/a=1", "near/h=1"}));
    });
}

TEST_F(FileCopyOverMounts, SourceOrDestinationThatMayNotBeUsedIsTheCopyError) {
    Make(Directory.GetPath(), {"secret=1", "readable=2", "writable="});
    SetMode(Directory / "secret", 0600);
    SetMode(Directory / "writable", 0666);
    const std::string secret = Directory / "secret";
    const std::string readable = Directory / "readable";
    const std::string writable = Directory / "writable";
    {
        const TWithoutPrivilege nobody;
        EXPECT_KEST_THROW(TFile::Copy(secret, writable), EException, CopyError(secret, writable));
        EXPECT_KEST_THROW(TFile::Copy(readable, secret), EException, CopyError(readable, secret));
        // Writing is allowed, setting the time is the owner's.
        EXPECT_KEST_THROW(TFile::Copy(readable, writable), EException, Described("SetLastModificationTime failed: ", EPERM));
    }
    EXPECT_EQ(TreeOf(Directory.GetPath()), (TTree{"readable=2", "secret=1", "writable=2"}));
}

TEST(FileCopy, CancelledThreadUnwindsAndLeaksNothing) {
    const struct {
        const char* Name;
        std::string From, To;
        std::size_t Size; ///< of the source, or of what is in the pipe when that is the source
        bool IsPipeOpen;
    } cases[] = {
        {"opening the source", "pipe", "to", 0, false},
        {"opening the destination", "from", "pipe", 10, false},
        {"waiting for the first byte", "pipe", "to", 0, true},
        {"reading on", "pipe", "to", 3000, true},
        {"writing", "from", "pipe", 1 << 20, true},
        {"writing the last bytes", "from", "pipe", 65536 + 100, true}, // 65536 fit
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Name);
        const TTemporaryDirectory directory;
        Make(directory.GetPath(), {"pipe|"});
        WriteFile(directory / "from", SomeBytes(each.Size));
        const int before = OpenDescriptors();
        const int pipe = each.IsPipeOpen ? ::open((directory / "pipe").c_str(), O_RDWR | O_CLOEXEC) : -1;
        if (each.From == "pipe" && each.IsPipeOpen)
            WriteFile(directory / "pipe", SomeBytes(each.Size));
        TBlockingPoint blocking;
        TFunctionThread thread([&] {
            blocking.Enter();
            TFile::Copy(directory / each.From, directory / each.To);
        });
        thread.Start();
        EXPECT_TRUE(blocking.WaitUntilBlocked());
        thread.Cancel(); // a thread that swallows it hangs this test
        EXPECT_EQ(thread.WaitFor(), -1);
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
        }
        EXPECT_EQ(BlocksInUse, blocks) << successes;
        EXPECT_EQ(OpenDescriptors(), descriptors) << successes;
        EXPECT_TRUE(ReadFile(from) == SomeBytes(10000)) << successes;
    }
    EXPECT_GT(successes, 3);
    EXPECT_TRUE(ReadFile(to) == SomeBytes(10000));
}

TEST(FileRemove, RemovesFilesLinksAndEmptyDirectories) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"a=1", "b=2", "l->a", "empty/", "full/", "full/c=3"});
    for (const char* name : {"l", "b", "empty"})
        TFile::Remove(directory / name);
    EXPECT_EQ(TreeOf(directory.GetPath()), (TTree{"a=1", "full/", "full/c=3"}));
    const struct {
        std::string Path;
        int Code;
    } cases[] = {{directory / "gone", ENOENT}, {directory / "full", ENOTEMPTY}, {directory / "a/x", ENOTDIR}};
    for (const auto& each : cases)
        EXPECT_KEST_THROW(TFile::Remove(each.Path), EException, Described("unable to remove file '" + each.Path + "': ", each.Code));
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
