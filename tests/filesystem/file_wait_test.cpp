#include <kest/filesystem/file.h>

#include "files.h"

#include <atomic>
#include <csignal>
#include <thread>

#include <pthread.h>
#include <sys/fsuid.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

const char* const CopyFailed = "Kest: cross device link: tryed to copy and remove: copy failed";

TEST_F(WithMounts, SignalThatEndsTheWaitForAPipeCostsNothing) {
    const TTree tree{"far/to=old", "near/p|"};
    InMounts([&] {
        Make(Directory.GetPath(), tree);
        struct sigaction handled {};
        struct sigaction before {};
        handled.sa_handler = [](int) {};
        (void)::sigaction(SIGUSR1, &handled, &before);
        std::atomic<bool> isOver{false};
        auto other = std::async(std::launch::async, [&isOver, waiting = ::pthread_self()] {
            for (; !isOver; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
                (void)::pthread_kill(waiting, SIGUSR1);
        });
        EXPECT_KEST_THROW(_RenameHelper(Directory / "near/p", Directory / "far/to"), EException, CopyFailed);
        isOver = true;
        other.get();
        (void)::sigaction(SIGUSR1, &before, nullptr);
        EXPECT_EQ(MountedTree(), tree);
    });
}

TEST_F(WithMounts, LeaseIsWaitedForAndTheWaitCanBeCancelled) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "far/to=old"});
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/to";
        auto* const before = std::signal(SIGIO, SIG_IGN); // by which the system asks for the lease
        const int holder = ::open(from.c_str(), O_RDWR | O_CLOEXEC);
        Ensure(::fcntl(holder, F_SETLEASE, F_WRLCK) == 0, "a lease");
        {
            TFunctionThread thread([&] { TFile::Rename(from, to); });
            thread.Start();
            thread.Cancel();
            EXPECT_EQ(thread.WaitFor(), -1);
        }
        EXPECT_EQ(TreeOf(Directory / "far"), TTree{"to=old"});
        auto moved = std::async(std::launch::async, [&] { TFile::Rename(from, to); });
        EXPECT_EQ(moved.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        Ensure(::fcntl(holder, F_SETLEASE, F_UNLCK) == 0, "the end of the lease");
        moved.get();
        (void)::close(holder);
        (void)std::signal(SIGIO, before);
        EXPECT_EQ(MountedTree(), TTree{"far/to=1"});
    });
}

TEST_F(WithMounts, DestinationThatMayBeWrittenInAFolderThatMayNotIsKept) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "far/to=old"});
        for (const auto& [name, mode] : {std::pair{"", 0755U}, {"far", 0755U}, {"far/to", 0666U}})
            Ensure(::chmod((Directory / name).c_str(), mode) == 0, name);
        constexpr uid_t nobody = 65534;
        (void)::setfsuid(nobody); // of the calling thread alone
        EXPECT_KEST_THROW(TFile::Rename(Directory / "near/a", Directory / "far/to"), EException, CopyFailed);
        (void)::setfsuid(0);
        EXPECT_EQ(MountedTree(), (TTree{"far/to=old", "near/a=1"}));
    });
}

} // namespace
