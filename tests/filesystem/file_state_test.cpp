#include <kest/filesystem/file_state.h>

#include <filesystem/files.h>
#include <support/message.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

using namespace Kest::Test;
using Kest::EException;
using Kest::System::TFile;

namespace {

TEST(FileState, TypeIsSeenThroughLinks) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"file=12345", "d/", "pipe|", "l->file", "ll->l", "toDirectory->d", "gone->nothing", "loop->loop"});
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (directory / "socket").c_str(), sizeof address.sun_path - 1);
    union {
        sockaddr_un* FS;
        sockaddr* General;
    } pointer{&address};
    ASSERT_EQ(::bind(listener, pointer.General, sizeof address), 0);
    ::close(listener);

    const struct {
        std::string Path;
        TFile::TType Type;
    } cases[] = {
        {directory / "file", TFile::Regular}, {directory / "l", TFile::Regular},
        {directory / "ll", TFile::Regular},   {directory / "toDirectory", TFile::Directory},
        {directory / "d", TFile::Directory},  {directory / "pipe", TFile::Fifo},
        {"/dev/null", TFile::Device},         {directory / "socket", TFile::Other},
    };
    for (const auto& each : cases)
        EXPECT_EQ(TFile::TState(each.Path).GetType(), each.Type) << each.Path;
    EXPECT_EQ(TFile::TState(directory / "ll").GetSize(), 5);

    const auto failure = [](int code) { return std::string("Kest: getting file state failed: ") + std::strerror(code); };
    EXPECT_KEST_THROW(TFile::TState(directory / "gone"), EException, failure(ENOENT));
    EXPECT_KEST_THROW(TFile::TState(directory / "file/x"), EException, failure(ENOTDIR));
    EXPECT_KEST_THROW(TFile::TState(directory / "loop"), EException, failure(ELOOP));
    EXPECT_KEST_THROW(TFile::TState(""), EException, failure(ENOENT));
}

TEST(FileState, BlockDeviceIsADevice) {
    const TTemporaryDirectory directory;
    if (::mknod((directory / "block").c_str(), S_IFBLK | 0600, makedev(7, 0)) != 0)
        GTEST_SKIP() << "this user may not make devices: " << std::strerror(errno);
    EXPECT_EQ(TFile::TState(directory / "block").GetType(), TFile::Device);
}

TEST(FileState, SizeAndTimesHave64Bits) {
    const TTemporaryDirectory directory;
    WriteFile(directory / "f", "");
    std::filesystem::resize_file(directory / "f", 5000000000U); // without blocks
    const timespec times[] = {{8589934592, 0}, {8589934593, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / "f").c_str(), times, 0), 0);
    const TFile::TState state(directory / "f");
    EXPECT_EQ(state.GetSize(), 5000000000);
    EXPECT_EQ(state.GetLastAccessTime(), 8589934592.0);
    EXPECT_EQ(state.GetLastModificationTime(), 8589934593.0);
    EXPECT_EQ(state.GetLastChangeTime(), static_cast<double>(StatusOf(directory / "f").st_ctime));
}

TEST(FileState, SetTimeIsTruncatedTowardZeroAndLeavesTheOtherAsTheRecordHoldsIt) {
    const TTemporaryDirectory directory;
    const std::string path = directory / "f";
    const struct {
        double Set;
        time_t Expected;
    } cases[] = {{12.9, 12}, {1234567890.75, 1234567890}, {0.0, 0}, {-0.5, 0}, {-12.9, -12}, {-86400, -86400}, {8589934592.75, 8589934592}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Set);
        WriteFile(path, "x");
        const timespec old[] = {{1000, 500}, {2000, 500}};
        const timespec newer[] = {{3000, 0}, {4000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), old, 0), 0);
        TFile::TState modification(path);
        TFile::TState access(modification);
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), newer, 0), 0); // which the objects do not see

        modification.SetLastModificationTime(each.Set);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, each.Expected);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_nsec, 0);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, 1000);
        EXPECT_EQ(modification.GetLastModificationTime(), static_cast<double>(each.Expected));
        EXPECT_EQ(modification.GetLastAccessTime(), 1000.0);

        access.SetLastAccessTime(each.Set);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, each.Expected);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, 2000);
        EXPECT_EQ(access.GetLastAccessTime(), static_cast<double>(each.Expected));
        EXPECT_EQ(access.GetLastModificationTime(), 2000.0);
    }
}

TEST(FileState, TimeBeyond64BitsIsRefusedAndChangesNothing) {
    const TTemporaryDirectory directory;
    WriteFile(directory / "f", "x");
    TFile::TState state(directory / "f");
    state.SetLastModificationTime(2000);
    state.SetLastAccessTime(1000);
    const double past = 9223372036854775808.0; // 2 to the 63rd
    for (const double time : {past, std::nextafter(-past, -1e300), 1e300, -1e300, std::numeric_limits<double>::infinity(), std::nan("")}) {
        SCOPED_TRACE(time);
        EXPECT_KEST_THROW(state.SetLastModificationTime(time), EException,
                          std::string("Kest: SetLastModificationTime failed: ") + std::strerror(EOVERFLOW));
        EXPECT_KEST_THROW(state.SetLastAccessTime(time), EException,
                          std::string("Kest: SetLastAccessTime failed: ") + std::strerror(EOVERFLOW));
        EXPECT_EQ(state.GetLastModificationTime(), 2000.0);
        EXPECT_EQ(state.GetLastAccessTime(), 1000.0);
        EXPECT_EQ(StatusOf(directory / "f").st_mtime, 2000);
        EXPECT_EQ(StatusOf(directory / "f").st_atime, 1000);
    }
    state.SetLastAccessTime(-past); // the last that fits; the file system stores the nearest it can
    EXPECT_EQ(state.GetLastAccessTime(), -past);
}

TEST(FileState, FailedSetLeavesTheNewTimeInTheRecord) {
    const TTemporaryDirectory directory;
    WriteFile(directory / "f", "x");
    TFile::TState state(directory / "f");
    std::filesystem::remove(directory / "f");
    EXPECT_KEST_THROW(state.SetLastModificationTime(12.5), EException,
                      std::string("Kest: SetLastModificationTime failed: ") + std::strerror(ENOENT));
    EXPECT_KEST_THROW(state.SetLastAccessTime(-12.5), EException, std::string("Kest: SetLastAccessTime failed: ") + std::strerror(ENOENT));
    EXPECT_EQ(state.GetLastModificationTime(), 12.0);
    EXPECT_EQ(state.GetLastAccessTime(), -12.0);
}

} // namespace
