#include <kest/filesystem/directory.h>

#include "files.h"
#include <support/child.h>

#include <atomic>
#include <set>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

using TNames = std::vector<std::string>;
using TUnordered = std::multiset<std::string>;

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

TEST(Directory, DeliversEachEntryAndThenTheEndUntilRewound) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"a=1", "d/", "l->gone", "p|", ".hidden=2", "d/below=3", "with blank\n=4", "\xC3\xA4=5", "\xFF=6"});
    TDirectory directory(place.GetPath());
    const TNames names = Rest(directory);
    EXPECT_EQ(TUnordered(names.begin(), names.end()),
              (TUnordered{".", "..", "a", "d", "l", "p", ".hidden", "with blank\n", "\xC3\xA4", "\xFF"}));
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
    TUnordered expected{".", ".."};
    for (int file = 0; file < 2000; ++file)
        WriteFile(place / *expected.insert("a file whose name needs memory " + std::to_string(file)), "");
    TDirectory directory(place.GetPath());
    for (int round = 0; round < 10; ++round) {
        directory.Rewind();
        std::atomic<std::size_t> arrived{0};
        std::vector<std::future<TNames>> threads(8);
        for (auto& thread : threads)
            thread = std::async(std::launch::async, [&] {
                for (++arrived; arrived < threads.size();) // so that all of them read
                    std::this_thread::yield();
                return Rest(directory);
            });
        TUnordered all;
        for (auto& thread : threads)
            for (const std::string& name : thread.get())
                all.insert(name);
        EXPECT_TRUE(all == expected) << all.size() << " entries";
    }
}

TEST(Directory, IsCreatedEnteredAndRemoved) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"file=1", "l->d", "m->file", "empty/", "full/", "full/x=1"});
    const std::string root = std::filesystem::canonical(place.GetPath()).string();
    InChild([&] {
        ::umask(0);
        TDirectory::Create(place / "d");
        EXPECT_EQ(StatusOf(place / "d").st_mode, S_IFDIR | 0755U);
        TDirectory::Change(place / "l/../l");
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        EXPECT_KEST_THROW(TDirectory::Change("gone"), EException, Described("unable to set current directory to gone: ", ENOENT));
        EXPECT_EQ(TDirectory::GetCurrent(), root + "/d");
        TDirectory::Remove("../d");
        EXPECT_KEST_THROW(TDirectory::GetCurrent(), EException, Described("unable to get current directory: ", ENOENT));
    });
    EXPECT_KEST_THROW(TDirectory::Remove(place / "full"), EException, Described("unable to remove directory: ", ENOTEMPTY));
    TFile::Remove(place / "empty");
    TFile::Remove(place / "l");
    TFile::Remove(place / "m");
    EXPECT_EQ(TreeOf(place.GetPath()), (TTree{"file=1", "full/", "full/x=1"}));
}

} // namespace
