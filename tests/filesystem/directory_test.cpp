#include <kest/filesystem/directory.h>

#include <filesystem/files.h>
#include <support/child.h>
#include <support/slot.h>

#include <atomic>
#include <thread>

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
    TNames expected{".", ".."};
    for (const auto& entry : std::filesystem::directory_iterator(place.GetPath()))
        expected.push_back(entry.path().filename().string());

    TDirectory directory(place.GetPath());
    const TNames names = Rest(directory);
    EXPECT_EQ(Sorted(names), Sorted(expected));
    for (int round = 0; round < 3; ++round) {
        errno = EIO; // of an earlier call, which says nothing about this one
        EXPECT_KEST_THROW(directory.Read(), TDirectory::EEnd, "Kest: end of directory");
    }
    directory.Rewind();
    const TDirectory::TEntry first = directory.Read();
    EXPECT_EQ(first.GetName(), names[0]);
    directory.Rewind();
    EXPECT_EQ(Rest(directory), names);
    EXPECT_EQ(first.GetName(), names[0]);
}

TEST(Directory, ThreadsGetEachEntryOnce) {
    const TTemporaryDirectory place;
    TNames expected{".", ".."};
    for (int file = 0; file < 2000; ++file) {
        expected.push_back("a file whose name needs memory " + std::to_string(file));
        WriteFile(place / expected.back(), "");
    }
    TDirectory directory(place.GetPath());
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        directory.Rewind();
        std::atomic<std::size_t> arrived{0};
        std::vector<TNames> seen(8);
        std::vector<std::thread> threads;
        for (TNames& names : seen)
            threads.emplace_back([&] {
                ++arrived;
                while (arrived < seen.size()) // so that all of them read
                    std::this_thread::yield();
                names = Rest(directory);
            });
        TNames all;
        for (std::size_t index = 0; index < seen.size(); ++index) {
            threads[index].join();
            all.insert(all.end(), seen[index].begin(), seen[index].end());
        }
        EXPECT_TRUE(Sorted(all) == Sorted(expected)) << all.size() << " entries";
    }
}

TEST(Directory, FailedAllocationLosesNoEntry) {
    const TTemporaryDirectory place;
    for (const char* name : {"the first of the names that need memory", "the second of the names that need memory"})
        WriteFile(place / name, "");
    TDirectory directory(place.GetPath());
    const TNames names = Rest(directory);
    directory.Rewind();
    for (const std::string& name : names) {
        long successes = 0;
        for (bool isRead = false; !isRead; ++successes) {
            try {
                const TFailingNew failing(successes);
                const TDirectory::TEntry entry = directory.Read();
                isRead = true;
                EXPECT_STREQ(entry.GetName().c_str(), name.c_str());
            } catch (const std::bad_alloc&) {
            }
        }
        EXPECT_EQ(successes > 1, name.size() > 2); // "." and ".." need no memory
    }
    EXPECT_EQ(Rest(directory), TNames());

    directory.Rewind();
    while (!testing::Test::HasFailure()) { // up to the first name that needs memory, which is not delivered after rewinding
        try {
            const TFailingNew failing;
            (void)directory.Read();
        } catch (const std::bad_alloc&) {
            break;
        }
    }
    directory.Rewind();
    EXPECT_EQ(Rest(directory), names);
}

TEST(Directory, OpeningFailureLeaksNothing) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"file=1"});
    const struct {
        std::string Path;
        int Code;
    } cases[] = {{place / "gone", ENOENT}, {place / "file", ENOTDIR}, {"", ENOENT}};
    const int descriptors = OpenDescriptors();
    const long blocks = BlocksInUse;
    for (const auto& each : cases)
        EXPECT_KEST_THROW(TDirectory{each.Path}, EException, Described("directory opening failed: ", each.Code));
    { const TDirectory directory(place.GetPath()); }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(BlocksInUse, blocks);
}

TEST(Directory, ReadingFailureLeavesItUsable) {
    const TTemporaryDirectory place;
    const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(descriptor); // the next one gets this number
    TDirectory directory(place.GetPath());
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int kept = ::dup(descriptor);
    ASSERT_EQ(::dup2(other, descriptor), descriptor);
    EXPECT_KEST_THROW(directory.Read(), EException, Described("directory reading failed: ", ENOTDIR));
    ASSERT_EQ(::dup2(kept, descriptor), descriptor);
    EXPECT_EQ(Sorted(Rest(directory)), (TNames{".", ".."}));
    ::close(kept);
    ::close(other);
}

TEST(Directory, CreateAndRemove) {
    const TTemporaryDirectory place;
    Make(place.GetPath(), {"file=1", "full/", "full/x=1"});
    const mode_t old = ::umask(0);
    TDirectory::Create(place / "open");
    ::umask(0027);
    TDirectory::Create(place / "masked");
    ::umask(old);
    EXPECT_EQ(StatusOf(place / "open").st_mode, S_IFDIR | 0755U);
    EXPECT_EQ(StatusOf(place / "masked").st_mode, S_IFDIR | 0750U);
    EXPECT_KEST_THROW(TDirectory::Create(place / "open"), EException, Described("unable to create directory: ", EEXIST));
    EXPECT_KEST_THROW(TDirectory::Create(place / "gone/d"), EException, Described("unable to create directory: ", ENOENT));
    EXPECT_KEST_THROW(TDirectory::Remove(place / "full"), EException, Described("unable to remove directory: ", ENOTEMPTY));
    EXPECT_KEST_THROW(TDirectory::Remove(place / "file"), EException, Described("unable to remove directory: ", ENOTDIR));
    TDirectory::Remove(place / "masked");
    EXPECT_EQ(TreeOf(place.GetPath()), (TTree{"file=1", "full/", "full/x=1", "open/"}));
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

        TDirectory::Change(root);
        const auto enterNew = [](std::size_t length) {
            TDirectory::Create(std::string(length, 'x'));
            TDirectory::Change(std::string(length, 'x'));
        };
        enterNew(200);
        enterNew(200);
        enterNew(510 - 402 - 1 - root.size());
        EXPECT_EQ(TDirectory::GetCurrent().size(), 510U); // the longest that is told
        TDirectory::Change("..");
        enterNew(511 - 402 - 1 - root.size());
        EXPECT_KEST_THROW(TDirectory::GetCurrent(), EException, Described("unable to get current directory: ", ERANGE));
    });
}

TEST(Directory, VirtualOperationsHaveTheirPlaces) {
    EXPECT_EQ(Slot(&TDirectory::Rewind), 0); // the destructor follows
    EXPECT_EQ(Slot(&TDirectory::Read), 3);
    EXPECT_EQ(Slot(&TDirectory::TEntry::GetName), 2);
}

} // namespace
