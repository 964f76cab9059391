// Tests that loading the library changes nothing in a process that is not linked with it, and that unloading leaves nothing behind.
#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include <dlfcn.h>
#include <unistd.h>

namespace {

/// A text for each thing of the process that a library could change.
std::map<std::string, std::string> DescribeProcess() {
    std::map<std::string, std::string> process;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        for (const char* name : {"Umask", "Threads", "SigBlk", "SigIgn", "SigCgt"})
            if (line.rfind(name, 0) == 0)
                process[name] = line;
    for (char** variable = environ; *variable != nullptr; ++variable)
        process["environment"] += std::string(*variable) + '\0';
    using std::filesystem::directory_iterator;
    process["descriptors"] = std::to_string(std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
    process["locale"] = std::setlocale(LC_ALL, nullptr);
    process["thread's locale"] = uselocale(nullptr) == LC_GLOBAL_LOCALE ? "the program's" : "its own";
    process["working directory"] = std::filesystem::current_path().string();
    return process;
}

/// The names of what has changed. Only names: the values of the environment do not belong into a log.
std::string NameChanges(const std::map<std::string, std::string>& before) {
    std::string names;
    for (const auto& [name, value] : DescribeProcess())
        names += before.at(name) == value ? "" : name + "; ";
    return names;
}

bool IsMapped() {
    std::ifstream maps("/proc/self/maps");
    const std::string text{std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>()};
    return text.find("libkest") != std::string::npos;
}

/// Makes both objects that live until the library is unloaded: what detects the locale, and the lock of the resolver.
void Use(void* library) {
#ifdef _LIBCPP_VERSION
    void* const getSystemEncoding = dlsym(library, "_ZN4Kest6System17GetSystemEncodingEv");
#else
    void* const getSystemEncoding = dlsym(library, "_ZN4Kest6System17GetSystemEncodingB5cxx11Ev");
#endif
    void* const getResolverLock = dlsym(library, "_ZN4Kest8_Gadgets10TSingletonINS_6System7TSocket6TMutexEE9GetObjectEv");
    ASSERT_TRUE(getSystemEncoding != nullptr && getResolverLock != nullptr);
    EXPECT_NE(reinterpret_cast<std::string (*)()>(getSystemEncoding)(), "");
    EXPECT_NE(reinterpret_cast<void* (*)()>(getResolverLock)(), nullptr);
}

TEST(Loading, ChangesNothingOfTheProcessAndUnloadsForGood) {
    // The locale is not that of the environment and one signal is blocked, so that a reset would show too.
    std::setlocale(LC_ALL, "C");
    ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
    ASSERT_FALSE(IsMapped());

    const auto before = DescribeProcess();
    for (const char* round : {"first", "second", "third"}) {
        SCOPED_TRACE(round);
        void* library = dlopen(KEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        ASSERT_TRUE(IsMapped());
        EXPECT_EQ(NameChanges(before), "") << "after loading";
        Use(library);
        EXPECT_EQ(NameChanges(before), "") << "after use";
        EXPECT_EQ(dlclose(library), 0);
        EXPECT_EQ(NameChanges(before), "") << "after unloading";
        EXPECT_EQ(dlopen(KEST_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
        EXPECT_FALSE(IsMapped());
    }
}

} // namespace
