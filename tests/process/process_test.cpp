#include <kest/process/process.h>

#include <models/temporary_directory.h>
#include <support/child.h>
#include <support/message.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

int Nice() {
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()));
}

TEST(ProcessPriority, MapsOntoTheNiceValueWithinItsBounds) {
    const int before = Nice();
    for (const int priority : {-101, 101, INT_MIN, INT_MAX})
        EXPECT_KEST_THROW(SetProcessPriority(priority), EException, "Kest: bad priority value") << priority;
    EXPECT_EQ(Nice(), before);
    if (::geteuid() != 0)
        GTEST_SKIP() << "only the superuser can raise the priority";
    const int cases[][3] = {
        // set, the nice value, read
        {-100, 19, -95}, {-91, 19, -95}, {-90, 18, -90}, {-5, 1, -5},   {-1, 1, -5},     {0, 0, 0},
        {4, 0, 0},       {5, -1, 5},     {50, -10, 50},  {99, -19, 95}, {100, -20, 100},
    };
    InChild([&] {
        for (const auto& each : cases) {
            SetProcessPriority(each[0]);
            EXPECT_EQ(Nice(), each[1]) << each[0];
            errno = EPERM; // of an earlier call; a nice value of -1 is no failure
            EXPECT_EQ(GetProcessPriority(), each[2]) << each[0];
        }
        std::thread([] { SetProcessPriority(50); }).join();
        EXPECT_EQ(Nice(), -10) << "it is the process's priority, not that of the calling thread";
    });
}

TEST(Process, ApplicationFileNameComesFromTheShellOrTheFirstArgument) {
    const TTemporaryDirectory directory;
    const std::string root = std::filesystem::canonical(directory.GetPath()).string();
    for (const char* name : {"started", "argument"})
        std::ofstream(directory / name) << "x";
    std::filesystem::create_symlink("started", directory / "link");
    const struct {
        const char *Shell, *Underscore, *Argument, *Expected; ///< no expected name: a failure
    } cases[] = {
        {"/bin/bash", "./link", "argument", "/started"}, {"/bin/bash", "gone", "argument", nullptr},
        {"/bin/bash", "", "argument", "/argument"},      {"/bin/sh", "started", "argument", "/argument"},
        {nullptr, "started", "argument", "/argument"},   {nullptr, nullptr, "nothing-of-that-name", nullptr},
    };
    for (const auto& each : cases)
        InChild([&] {
            std::filesystem::current_path(directory.GetPath());
            each.Shell == nullptr ? ::unsetenv("SHELL") : ::setenv("SHELL", each.Shell, 1);
            each.Underscore == nullptr ? ::unsetenv("_") : ::setenv("_", each.Underscore, 1);
            std::string argument = each.Argument;
            char* argv[] = {argument.data(), nullptr};
            if (each.Expected == nullptr)
                EXPECT_KEST_THROW(GetApplicationFileName(1, argv), EException, "Kest: realpath() failed");
            else
                EXPECT_EQ(GetApplicationFileName(0, argv), root + each.Expected);
        });
}

} // namespace
