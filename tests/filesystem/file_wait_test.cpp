#include <kest/filesystem/file.h>

#include "files.h"

#include <csignal>

#include <sys/fsuid.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

const char* const CopyFailed = "Kest: cross device link: tryed to copy and remove: copy failed";

TEST_F(WithMounts, LeaseIsWaitedForAndTheWaitCanBeCancelled) {
    InMounts([this] {
        Make(Directory.GetPath(), {"near/a=1", "far/to=old"});
        const std::string from = Directory / "near/a";
        const std::string to = Directory / "far/to";
        auto* const before = std::signal(SIGIO, SIG_IGN); // the system asks for the lease by SIGIO
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
