#include <kest/filesystem/file.h>

#include "files.h"
#include <support/child.h>
#include <support/descriptors.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

using TCall = void (*)(const std::string& from, const std::string& to);

/// What a call does to a tree, and its message, in which FROM and TO stand for the paths; it is empty for success.
struct TCase {
    TTree Before;
    std::string From, To, Message;
    TTree After;
};

std::string Replaced(std::string text, const std::string& mark, const std::string& path) {
    const std::size_t place = text.find(mark);
    return place == std::string::npos ? text : text.replace(place, mark.size(), path);
}

void Check(const TCase& each, const std::string& directory, TCall call, const std::function<TTree()>& tree) {
    SCOPED_TRACE(each.From + " to " + each.To + " shall give " + testing::PrintToString(each.After).substr(0, 200));
    Make(directory, each.Before);
    const std::string from = directory + '/' + each.From;
    const std::string to = directory + '/' + each.To;
    const std::string expected = Replaced(Replaced(each.Message, "TO", to), "FROM", from);
    const int before = OpenDescriptors();
    std::string message;
    try {
        call(from, to);
    } catch (const EException& exception) {
        message = exception.GetMessage();
    }
    EXPECT_EQ(message, expected);
    EXPECT_TRUE(tree() == each.After) << testing::PrintToString(tree()).substr(0, 200);
    EXPECT_EQ(OpenDescriptors(), before);
}

/// Makes the call in a directory of its own.
void Check(const TCase& each, TCall call) {
    const TTemporaryDirectory directory;
    Check(each, directory.GetPath(), call, [&directory] { return TreeOf(directory.GetPath()); });
}

const std::string CopyError = "Kest: file copy error: from FROM to TO";
std::string FailureOfCopy(const std::string& from, const std::string& to) {
    return Replaced(Replaced(CopyError, "TO", to), "FROM", from);
}

const std::string CopyFailed = "Kest: cross device link: tryed to copy and remove: copy failed";
const std::string RemoveFailed = "Kest: cross device link: tryed to copy and remove: remove failed";

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
    TFile::Copy("/proc/filesystems", to); // the system says that this file is empty
    EXPECT_EQ(ReadFile(to), ReadFile("/proc/filesystems"));
}

TEST(FileCopy, FailureLeavesWhatIsDocumented) {
    const TCase cases[] = {
        {{"b=22"}, "gone", "b", Described("getting file state failed: ", ENOENT), {"b=22"}},
        {{"b=22", "d/"}, "d", "b", CopyError, {"b=22", "d/"}},
        {{"a=1", "d/"}, "a", "d", CopyError, {"a=1", "d/"}},
        // One file under several names.
        {{"a=1"}, "a", "a", CopyError, {"a=1"}},
        {{"a=1", "l->a"}, "a", "l", CopyError, {"a=1", "l->a"}},
        {{"a=1", "l->."}, "l/a", "a", CopyError, {"a=1", "l->."}},
        {{"a=1", "h&a"}, "a", "h", CopyError, {"a=1", "h=1"}},
    };
    for (const TCase& each : cases)
        Check(each, TFile::Copy);
}

TEST_F(WithMounts, CopyToAFullDiskIsTheCopyErrorAndOntoItselfTouchesNothing) {
    InMounts([this] {
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/a";
        for (const std::size_t size : {std::size_t{1}, std::size_t{8192}, FarSize, FarSize + 1, FarSize + 100000}) {
            SCOPED_TRACE(size);
            WriteFile(from, SomeBytes(size));
            EXPECT_KEST_THROW(TFile::Copy(from, "/dev/full"), EException, FailureOfCopy(from, "/dev/full"));
            if (size <= FarSize)
                TFile::Copy(from, to);
            else
                EXPECT_KEST_THROW(TFile::Copy(from, to), EException, FailureOfCopy(from, to));
            EXPECT_TRUE(ReadFile(to) == SomeBytes(size).substr(0, FarSize)) << "what was written stays";
        }
        Make(Directory.GetPath(), {"near/b=1", "near/h&near/b"});
        for (const std::string& road : {Directory / "again/b", Directory / "again/h"})
            EXPECT_KEST_THROW(TFile::Copy(Directory / "near/b", road), EException, FailureOfCopy(Directory / "near/b", road));
        EXPECT_EQ(ReadFile(Directory / "near/b"), "1");
    });
}

TEST(FileRename, WithinAFileSystem) {
    const std::string failed = "rename failed: from 'FROM' to 'TO': ";
    const TCase cases[] = {
        {{"a=1", "b=22"}, "a", "b", "", {"b=1"}},
        {{"b=22"}, "a", "b", Described(failed, ENOENT), {"b=22"}},
        // One entry by two names.
        {{"a=1"}, "a", "a", "", {"a=1"}},
        {{"a=1", "d/"}, "a", "d/../a", "", {"a=1", "d/"}},
        {{"d/", "d/a=1", "l->d"}, "d/a", "l/a", "", {"d/", "d/a=1", "l->d"}},
        {{"a=1", "h&a", "l->."}, "a", "l/a", "", {"a=1", "h=1", "l->."}},
        {{"a=1", "h&a"}, std::string("a\0x", 3), std::string("./a\0y", 5), "", {"a=1", "h=1"}}, // a path ends at its first zero
        // Two hard links of one file.
        {{"a=1", "h&a"}, "a", "h", "", {"h=1"}},
        {{"a=1", "l->a", "m&l"}, "l", "m", "", {"a=1", "m->a"}}, // two hard links of a symbolic link
        {{"d/", "d/a=1", "e/", "e/b=2"}, "d", "e", Described(failed, ENOTEMPTY), {"d/", "d/a=1", "e/", "e/b=2"}},
    };
    for (const TCall call : {TCall{TFile::Rename}, TCall{_RenameHelper}}) // the latter for a success that takes no second attempt
        for (const TCase& each : cases)
            Check(each, call);
}

TEST_F(WithMounts, Rename) {
    const std::string large = SomeBytes(FarSize + 1);
    const TCase cases[] = {
        {{"near/a=1", "far/b=22"}, "near/a", "far/b", "", {"far/b=1"}},
        {{"near/a=1", "near/l->a"}, "near/l", "far/b", "", {"far/b=1", "near/a=1"}},
        // What stands at the destination is replaced, and nothing that is reached through it is written to.
        {{"near/a=1", "far/b=22", "far/l->b"}, "near/a", "far/l", "", {"far/b=22", "far/l=1"}},
        {{"near/a=1", "far/b=22", "far/h&far/b"}, "near/a", "far/h", "", {"far/b=22", "far/h=1"}},
        {{"near/a=1", "far/l->../near/a"}, "near/a", "far/l", "", {"far/l=1"}},
        // The copy fails.
        {{"near/a=" + large, "far/b=22"}, "near/a", "far/b", CopyFailed, {"far/b=22", "near/a=" + large}},
        {{"near/a=1", "far/d/", "far/d/b=2"}, "near/a", "far/d", CopyFailed, {"far/d/", "far/d/b=2", "near/a=1"}},
        {{"near/d/", "far/b=22"}, "near/d", "far/b", CopyFailed, {"far/b=22", "near/d/"}},
        // The copy may be made, the source not removed.
        {{"near/a=1", "far/b=22"}, "fixed/a", "far/b", RemoveFailed, {"near/a=1"}},
        // One file by two mounts.
        {{"near/a=1"}, "near/a", "again/a", CopyFailed, {"near/a=1"}},
        {{"near/a=1", "near/h&near/a"}, "near/a", "again/h", CopyFailed, {"near/a=1", "near/h=1"}},
        {{"near/a=1", "near/l->a", "near/m&near/l"}, "near/l", "again/m", CopyFailed, {"near/a=1", "near/l->a", "near/m->a"}},
        {{"near/a=1"}, "near/a", "again/b", "", {"near/b=1"}}, // the system refuses to rename between mounts, a copy works
    };
    for (const TCase& each : cases)
        InMounts([&] { Check(each, Directory.GetPath(), TFile::Rename, [this] { return MountedTree(); }); });
}

TEST(FileRename, BareNamesAreThoseOfTheCurrentDirectory) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"a=1", "h&a"});
    InChild([&directory] {
        std::filesystem::current_path(directory.GetPath());
        TFile::Rename("a", ".//a");
        EXPECT_EQ(TreeOf("."), (TTree{"a=1", "h=1"}));
        TFile::Rename("a", "h");
        EXPECT_EQ(TreeOf("."), TTree{"h=1"});
    });
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

    const char* const matches[][2] = {{"a/b.txt", "*.txt"}, {".profile", "*"}, {"a\\b", "a\\b"}, {"a\\x", "a\\*"}, {"[a", "[a"}};
    for (const auto& each : matches)
        EXPECT_TRUE(GetFileNameMatch(each[0], each[1])) << each[0];
    const char* const others[][2] = {{"A.TXT", "*.txt"}, {"a*", "a\\*"}, {"", "?"}, {"b", "[!a-c]"}};
    for (const auto& each : others)
        EXPECT_FALSE(GetFileNameMatch(each[0], each[1])) << each[0];
}

} // namespace
