#include <kest/foundation/singleton.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using Kest::_Gadgets::TSingleton;

namespace {

constexpr int Threads = 16;
std::atomic<int> Arrived{0}, Made{0}, Attempts{0};

struct TSlow {
    TSlow() {
        while (Arrived != Threads) // so that all of them make the first call together
            std::this_thread::yield();
        std::this_thread::yield();
        ++Made;
    }
};

struct TSecondTime {
    TSecondTime() {
        if (++Attempts == 1)
            throw std::runtime_error("not yet");
    }
};

TEST(Singleton, IsMadeOnceByThreadsThatComeTogether) {
    std::vector<TSlow*> seen(Threads);
    std::vector<std::thread> threads;
    for (TSlow*& object : seen)
        threads.emplace_back([&object] {
            ++Arrived;
            object = &TSingleton<TSlow>::GetObject();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(Made, 1);
    EXPECT_EQ(seen, std::vector<TSlow*>(Threads, &TSingleton<TSlow>::GetObject()));
}

TEST(Singleton, ConstructorThatThrowsIsTriedAgain) {
    EXPECT_THROW(TSingleton<TSecondTime>::GetObject(), std::runtime_error);
    const TSecondTime& object = TSingleton<TSecondTime>::GetObject();
    EXPECT_EQ(&TSingleton<TSecondTime>::GetObject(), &object);
    EXPECT_EQ(Attempts, 2);
}

} // namespace
