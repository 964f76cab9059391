#include <kest/foundation/singleton.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using Kest::_Gadgets::TSingleton;

namespace {

constexpr int Threads = 16;
std::atomic<int> Arrived{0}, Made{0};

struct TSlow {
    TSlow() {
        while (Arrived != Threads) // so that all of them make the first call together
            std::this_thread::yield();
        std::this_thread::yield();
        ++Made;
    }
};

TEST(Singleton, IsMadeOnceByThreadsThatComeTogether) {
    std::vector<std::future<TSlow*>> threads(Threads);
    for (auto& thread : threads)
        thread = std::async(std::launch::async, [] { return ++Arrived, &TSingleton<TSlow>::GetObject(); });
    for (auto& thread : threads)
        EXPECT_EQ(thread.get(), &TSingleton<TSlow>::GetObject());
    EXPECT_EQ(Made, 1);
}

} // namespace
