#include <kest/filesystem/directory.h>

#include "files.h"
#include <support/child.h>
#include <support/descriptors.h>
#include <support/message.h>
#include <support/temporary_directory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <sys/stat.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

using TNames = std::vector<std::string>;

/// All that @p directory still delivers, in its order.
TNames Rest(TDirectory& directory) {
    TNames names;
    try {
        for (;;)
            names.push_back(directory.Read().GetName());
    } catch (const TDirectory::EEnd&) {
    }
    return names;
}

TNames Sorted(TNames names) {
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Directory, DeliversEachEntryAndThenTheEndUntilRewound) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"a=1", "d/", "l->gone", "p|", ".hidden=2", "d/below=3", "with blank\n=4", "\xC3\xA4=5", "\xFF=6"});
    TDirectory directory(place.GetPath());
    const TNames names = Rest(directory);
    EXPECT_EQ(Sorted(names), Sorted({".", "..", "a", "d", "l", "p", ".hidden", "with blank\n", "\xC3\xA4", "\xFF"}));
    for (int round = 0; round < 2; ++round) {
        errno = EIO; // of an earlier call, which says nothing about this one
        EXPECT_KEST_THROW(directory.Read(), TDirectory::EEnd, "Kest: end of directory");
    }
    directory.Rewind();
    EXPECT_EQ(directory.Read().GetName(), names[0]);
    directory.Rewind();
    EXPECT_EQ(Rest(directory), names);
}

TEST(Directory, ThreadsGetEachEntryOnce) {
    const TTemporaryDirectory place;
    TNames expected{".", ".."};
    for (int file = 0; file < 2000; ++file) {
        expected.push_back("a file whose name needs memory " + std::to_string(file));
        WriteFile(place / expected.back(), "");
    }
    TDirectory directory(place.GetPath());
    for (int round = 0; round < 10; ++round) {
        directory.Rewind();
        std::atomic<std::size_t> arrived{0};
        std::vector<std::future<TNames>> threads(8);
        for (auto& thread : threads)
            thread = std::async(std::launch::async, [&] {
                ++arrived;
                while (arrived < threads.size()) // so that all of them read
                    std::this_thread::yield();
                return Rest(directory);
            });
        TNames all;
        for (auto& thread : threads)
            for (const std::string& name : thread.get())
                all.push_back(name);
        EXPECT_TRUE(Sorted(all) == Sorted(expected)) << all.size() << " entries";
    }
}

TEST(Directory, IsCreatedRemovedAndOpened) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"file=1", "l->file", "full/", "full/x=1"});
    const mode_t old = ::umask(0);
    TDirectory::Create(place / "open");
    ::umask(old);
    EXPECT_EQ(StatusOf(place / "open").st_mode, S_IFDIR | 0755U);
    EXPECT_KEST_THROW(TDirectory::Create(place / "open"), EException, Described("unable to create directory: ", EEXIST));
    EXPECT_KEST_THROW(TDirectory::Remove(place / "full"), EException, Described("unable to remove directory: ", ENOTEMPTY));
    const std::string full = place / "full";
    EXPECT_KEST_THROW(TFile::Remove(full), EException, Described("unable to remove file '" + full + "': ", ENOTEMPTY));
    TFile::Remove(place / "l");
    TDirectory::Remove(place / "open");
    EXPECT_EQ(TreeOf(place.GetPath()), (TTree{"file=1", "full/", "full/x=1"}));

    const int descriptors = OpenDescriptors();
    EXPECT_KEST_THROW(TDirectory{place / "file"}, EException, Described("directory opening failed: ", ENOTDIR));
    { const TDirectory directory(place.GetPath()); }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(Directory, CurrentOneIsChangedAndTold) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"d/", "l->d", "lost/"});
    const std::string root = std::filesystem::canonical(place.GetPath()).string();
    InChild([&] {
        TDirectory::Change(place / "l/../l");
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        EXPECT_KEST_THROW(TDirectory::Change("gone"), EException, Described("unable to set current directory to gone: ", ENOENT));
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        TDirectory::Change("../lost");
        TDirectory::Remove(root + "/lost");
        EXPECT_KEST_THROW(TDirectory::GetCurrent(), EException, Described("unable to get current directory: ", ENOENT));
    });
}

} // namespace
