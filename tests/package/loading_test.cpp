// What loading the library does to a process that is not linked with it: nothing, and unloading leaves nothing behind.
#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The process as others see it, one line for each thing that a library could change.
std::map<std::string, std::string> DescribeProcess() {
    std::map<std::string, std::string> process;
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) != 0)
            continue; // kept by the C library for itself
        const auto handler = reinterpret_cast<std::uintptr_t>(action.sa_handler);
        process["signal " + std::to_string(number)] = std::to_string(handler) + " flags " + std::to_string(action.sa_flags);
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int number = 1; number < NSIG; ++number)
        process["mask"] += sigismember(&mask, number) == 1 ? '1' : '0';
    for (char** variable = environ; *variable != nullptr; ++variable)
        process["environment"] += std::string(*variable) + '\0';
    const auto count = [](const char* folder) {
        return std::to_string(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
    };
    process["threads"] = count("/proc/self/task");
    process["descriptors"] = count("/proc/self/fd");
    process["locale"] = std::setlocale(LC_ALL, nullptr);
    process["thread's locale"] = uselocale(nullptr) == LC_GLOBAL_LOCALE ? "the program's" : "its own";
    process["working directory"] = std::filesystem::current_path().string();
    const mode_t creationMask = umask(0);
    umask(creationMask);
    process["creation mask"] = std::to_string(creationMask);
    return process;
}

/// What of the process is not as it was. Names only: what the environment holds is nothing for a log.
std::string NameChanges(const std::map<std::string, std::string>& before) {
    std::string names;
    for (const auto& [name, value] : DescribeProcess()) {
        const auto earlier = before.find(name);
        if (earlier == before.end() || earlier->second != value)
            names += name + "; ";
    }
    return names;
}

bool IsMapped() {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line))
        if (line.find("libkest") != std::string::npos)
            return true;
    return false;
}

void* Load() {
    void* library = dlopen(KEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr) << dlerror();
    return library;
}

template <class TFunction>
TFunction* Find(void* library, const char* mangledName) {
    auto* function = reinterpret_cast<TFunction*>(dlsym(library, mangledName));
    EXPECT_NE(function, nullptr) << mangledName;
    return function;
}

/// Makes both objects that live until the library is unloaded: what detects the locale, and the lock of the resolver.
void Use(void* library) {
    auto* getSystemEncoding = Find<std::string()>(library, "_ZN4Kest6System17GetSystemEncodingB5cxx11Ev");
    auto* getResolverLock = Find<void*()>(library, "_ZN4Kest8_Gadgets10TSingletonINS_6System7TSocket6TMutexEE9GetObjectEv");
    ASSERT_TRUE(getSystemEncoding != nullptr && getResolverLock != nullptr);
    EXPECT_NE(getSystemEncoding(), "");
    EXPECT_NE(getResolverLock(), nullptr);
}

TEST(Loading, ChangesNothingOfTheProcess) {
    // The locale is not that of the environment and one signal is blocked, so that a reset would show too.
    std::setlocale(LC_ALL, "C");
    ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
    ASSERT_FALSE(IsMapped());

    const auto before = DescribeProcess();
    void* library = Load();
    ASSERT_TRUE(IsMapped());
    EXPECT_EQ(NameChanges(before), "") << "after loading";
    Use(library);
    EXPECT_EQ(NameChanges(before), "") << "after use";
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(NameChanges(before), "") << "after unloading";
}

TEST(Loading, UnloadsForGoodAfterUseAndLoadsAgain) {
    for (const char* round : {"first", "second", "third"}) {
        SCOPED_TRACE(round);
        void* library = Load();
        ASSERT_NE(library, nullptr);
        Use(library);
        EXPECT_EQ(dlclose(library), 0);
        EXPECT_EQ(dlopen(KEST_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
        EXPECT_FALSE(IsMapped());
    }
}

} // namespace
