#include <kest/filesystem/file_state.h>

#include <filesystem/files.h>
#include <support/slot.h>

#include <cmath>
#include <limits>

#include <sys/sysmacros.h>

using namespace Kest::Test;
using Kest::EException;
using Kest::System::TFile;

namespace {

TEST(FileState, TypeIsSeenThroughLinks) {
    const TTemporaryDirectory directory;
    Make(directory.GetPath(), {"file=12345", "d/", "pipe|", "l->file", "ll->l", "ld->d", "gone->nothing", "loop->loop"});
    ASSERT_EQ(::mknod((directory / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    const bool mayMakeDevices = ::mknod((directory / "block").c_str(), S_IFBLK | 0600, makedev(7, 0)) == 0;
    const struct {
        std::string Path;
        TFile::TType Type;
    } cases[] = {{directory / "file", TFile::Regular}, {directory / "ll", TFile::Regular},  {directory / "d", TFile::Directory},
                 {directory / "ld", TFile::Directory}, {directory / "pipe", TFile::Fifo},   {"/dev/null", TFile::Device},
                 {directory / "block", TFile::Device}, {directory / "socket", TFile::Other}};
    for (const auto& each : cases)
        if (mayMakeDevices || each.Path != directory / "block") {
            EXPECT_EQ(TFile::TState(each.Path).GetType(), each.Type) << each.Path;
        }
    EXPECT_EQ(TFile::TState(directory / "ll").GetSize(), 5);

    const struct {
        std::string Path;
        int Code;
    } failures[] = {{directory / "gone", ENOENT}, {directory / "file/x", ENOTDIR}, {directory / "loop", ELOOP}, {"", ENOENT}};
    for (const auto& each : failures)
        EXPECT_KEST_THROW(TFile::TState{each.Path}, EException, Described("getting file state failed: ", each.Code));
}

TEST(FileState, SizeAndTimesHave64Bits) {
    const TTemporaryDirectory directory;
    WriteFile(directory / "f", "");
    std::filesystem::resize_file(directory / "f", 5000000000U); // without blocks
    SetTimes(directory / "f", {8589934592, 0}, {8589934593, 999999999});
    const TFile::TState state(directory / "f");
    EXPECT_EQ(state.GetSize(), 5000000000);
    EXPECT_EQ(state.GetLastAccessTime(), 8589934592.0);
    EXPECT_EQ(state.GetLastModificationTime(), 8589934593.0);
    EXPECT_EQ(state.GetLastChangeTime(), static_cast<double>(StatusOf(directory / "f").st_ctime));
}

TEST(FileState, SetTimeIsTruncatedTowardZeroAndLeavesTheOtherAsTheRecordHoldsIt) {
    const TTemporaryDirectory directory;
    const std::string path = directory / "f";
    WriteFile(path, "x");
    const struct {
        double Set;
        time_t Expected;
    } cases[] = {{12.9, 12}, {1234567890.75, 1234567890}, {0, 0}, {-0.5, 0}, {-12.9, -12}, {8589934592.75, 8589934592}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Set);
        SetTimes(path, {1000, 500}, {2000, 500});
        TFile::TState modification(path);
        TFile::TState access(modification);
        SetTimes(path, {3000, 0}, {4000, 0}); // which the objects do not see
        modification.SetLastModificationTime(each.Set);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, each.Expected);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_nsec, 0);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, 1000);
        EXPECT_EQ(modification.GetLastModificationTime(), static_cast<double>(each.Expected));
        access.SetLastAccessTime(each.Set);
        EXPECT_EQ(StatusOf(path).st_atim.tv_sec, each.Expected);
        EXPECT_EQ(StatusOf(path).st_mtim.tv_sec, 2000);
        EXPECT_EQ(access.GetLastAccessTime(), static_cast<double>(each.Expected));
    }
}

TEST(FileState, TimeThatCannotBeSetIsRefused) {
    const TTemporaryDirectory directory;
    const std::string path = directory / "f";
    WriteFile(path, "x");
    SetTimes(path, {1000, 0}, {2000, 0});
    TFile::TState state(path);
    const auto expectRefusal = [&state](double time, int code) {
        EXPECT_KEST_THROW(state.SetLastModificationTime(time), EException, Described("SetLastModificationTime failed: ", code)) << time;
        EXPECT_KEST_THROW(state.SetLastAccessTime(time), EException, Described("SetLastAccessTime failed: ", code)) << time;
    };
    const double past = 9223372036854775808.0; // 2 to the 63rd
    for (const double time : {past, std::nextafter(-past, -1e300), 1e300, -std::numeric_limits<double>::infinity(), std::nan("")}) {
        expectRefusal(time, EOVERFLOW);
        EXPECT_EQ(state.GetLastModificationTime(), 2000.0); // object and file are as before
        EXPECT_EQ(state.GetLastAccessTime(), 1000.0);
        EXPECT_EQ(StatusOf(path).st_mtime, 2000);
        EXPECT_EQ(StatusOf(path).st_atime, 1000);
    }
    state.SetLastAccessTime(-past); // the last that fits; the file system stores the nearest it can
    std::filesystem::remove(path);
    expectRefusal(-12.5, ENOENT);
    EXPECT_EQ(state.GetLastModificationTime(), -12.0); // the object holds the new times, though the system failed
    EXPECT_EQ(state.GetLastAccessTime(), -12.0);
}

TEST(FileState, VirtualOperationsHaveTheirPlaces) {
    EXPECT_EQ(Slot(&TFile::TState::GetType), 2); // behind the destructor
    EXPECT_EQ(Slot(&TFile::TState::GetSize), 3);
    EXPECT_EQ(Slot(&TFile::TState::GetLastChangeTime), 4);
    EXPECT_EQ(Slot(&TFile::TState::GetLastAccessTime), 5);
    EXPECT_EQ(Slot(&TFile::TState::GetLastModificationTime), 6);
    EXPECT_EQ(Slot(&TFile::TState::SetLastModificationTime), 7);
    EXPECT_EQ(Slot(&TFile::TState::SetLastAccessTime), 8);
}

} // namespace
