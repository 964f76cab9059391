#include <kest/filesystem/file_state.h>

#include "files.h"

#include <cmath>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

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
        SetTimes(path, {3000, 0}, {4000, 0}); // the objects keep the old times
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

} // namespace
