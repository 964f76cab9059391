#include <kest/process/dll.h>

#include <support/helper_thread.h>
#include <support/message.h>
#include <support/slot.h>
#include <support/temporary_directory.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <dlfcn.h>
#include <pthread.h>

using namespace Kest::Test;
using Kest::EException;
using Kest::System::TDLL;

namespace {

/// The plug-in by names of the test's own: a library that was once found is found again by its file, so each test has its copy.
class DLL : public testing::Test {
protected:
    DLL() {
        std::filesystem::copy_file(KEST_TEST_PLUGIN, Path + ".so");
        ::setenv("KEST_TEST_PLUGIN", "untouched", 1);
    }

    static std::string Told() { return std::getenv("KEST_TEST_PLUGIN"); }

    bool IsLoaded() const {
        void* const handle = ::dlopen((Path + ".so").c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr)
            ::dlclose(handle);
        return handle != nullptr;
    }

    TTemporaryDirectory Directory;
    const std::string Path = Directory / "plugin";
};

/// What the loader says when it is asked for @p name.
std::string LoaderText(const std::string& name) {
    EXPECT_EQ(::dlopen(name.c_str(), RTLD_LAZY), nullptr);
    return ::dlerror();
}

TEST_F(DLL, IsLoadedAsLongAsAnObjectLives) {
    for (const std::string& name : {Path + ".so", Path}) { // the second by a second attempt
        {
            const auto first = std::make_unique<TDLL>(name);
            EXPECT_EQ(Told(), "started");
            const auto twice = reinterpret_cast<int (*)(int)>(first->GetSymbolAddress("Twice"));
            ASSERT_NE(twice, nullptr);
            EXPECT_EQ(twice(21), 42);
            EXPECT_EQ(::dlsym(RTLD_DEFAULT, "Twice"), nullptr) << "offered to others";
            auto second = std::make_unique<TDLL>(Path);
            second.reset();
            EXPECT_EQ(Told(), "started");
            EXPECT_TRUE(IsLoaded());
        }
        EXPECT_EQ(Told(), "ended");
        EXPECT_FALSE(IsLoaded());
    }
}

TEST_F(DLL, NameIsTriedAsItIsFirstAndMissingSymbolIsNull) {
    std::filesystem::copy_file(Path + ".so", Path);
    TDLL library(Path);
    EXPECT_FALSE(IsLoaded()); // the other one
    EXPECT_NE(library.GetSymbolAddress("Twice"), nullptr);
    TDLL found("libm.so.6"); // where the loader looks by itself
    EXPECT_NE(found.GetSymbolAddress("cos"), nullptr);
    EXPECT_EQ(Slot(&TDLL::GetSymbolAddress), 2); // behind the destructor
    for (const char* name : {"Thrice", "twice", "", "Twice "})
        EXPECT_EQ(library.GetSymbolAddress(name), nullptr) << name;
}

TEST_F(DLL, FailureIsTheLoadersTextOnTheSecondAttempt) {
    std::ofstream(Directory / "broken") << "no library";
    std::ofstream(Directory / "bad.so") << "no library";
    for (const std::string& name : {Directory / "gone", Directory / "gone.so", Directory / "broken", Directory / "bad",
                                    Directory / "bad.so", std::string("libkestgone.so"), std::string("d\xC3\xA4/\xFF")}) {
        const std::string expected = LoaderText(name + ".so");
        EXPECT_NE(expected.find(name + ".so"), std::string::npos) << expected;
        EXPECT_KEST_THROW(TDLL{name}, EException, "Kest: " + expected);
    }
}

TEST_F(DLL, CancellationWaitsUntilTheLibraryHasStartedAndEnded) {
    std::string whenLoaded, whenUnloaded;
    TFunctionThread thread([&] {
        ::pthread_cancel(::pthread_self());
        const TDLL unwound("libm.so.6");
        {
            const TDLL library(Path);
            whenLoaded = Told();
        }
        whenUnloaded = Told();
        ::pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    });
    thread.Start();
    EXPECT_EQ(thread.WaitFor(), -1);
    EXPECT_EQ(whenLoaded, "started");
    EXPECT_EQ(whenUnloaded, "ended");
}

} // namespace
