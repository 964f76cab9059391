#include <kest/threads/mutex.h>

#include "support/helper_thread.h"
#include "support/slot.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

using namespace Kest::Test;
using Kest::System::TMutex;
using Kest::System::Interface::TProtectionGuard;

namespace {

static_assert(std::is_base_of_v<TProtectionGuard, TMutex> && std::has_virtual_destructor_v<TProtectionGuard>);
static_assert(!std::is_copy_constructible_v<TMutex> && !std::is_move_constructible_v<TMutex> && !std::is_copy_assignable_v<TMutex>);

TEST(Mutex, IsFreeToOthersOnceItsHolderHasLeftAsOftenAsItEntered) {
    const struct {
        bool Recursive;
        const char* Steps; // E enters, T tries with success, t without, L leaves
        const char* Free;  // to others after each step
    } cases[] = {{false, "EL", "01"},    {false, "TLEL", "0101"},        {false, "EtL", "001"},         {true, "EL", "01"},
                 {true, "EELL", "0001"}, {true, "TTLETLLL", "00000001"}, {true, "ETELLLEL", "00000101"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Steps);
        TMutex mutex(each.Recursive);
        EXPECT_TRUE(OthersMayEnter(mutex));
        for (int i = 0; each.Steps[i] != '\0'; ++i) {
            switch (each.Steps[i]) {
            case 'E':
                mutex.Enter();
                break;
            case 'L':
                mutex.Leave();
                break;
            default:
                EXPECT_EQ(mutex.TryEnter(), each.Steps[i] == 'T');
            }
            EXPECT_EQ(OthersMayEnter(mutex), each.Free[i] == '1') << "after step " << i;
        }
    }
}

TEST(Mutex, KeepsThreadsApart) {
    for (const bool recursive : {false, true}) {
        SCOPED_TRACE(recursive);
        constexpr int threads = 8, rounds = 5000;
        TMutex mutex(recursive);
        TGate start;
        int counter = 0; // no atomic on purpose
        std::vector<std::thread> all;
        for (int index = 0; index != threads; ++index)
            all.emplace_back([&, index] {
                start.Wait();
                for (int round = 0; round != rounds; ++round) {
                    if (round % 4 != 0 || !mutex.TryEnter())
                        mutex.Enter();
                    const int depth = recursive ? (round + index) % 3 : 0;
                    for (int i = 0; i != depth; ++i)
                        EXPECT_TRUE(i % 2 == 0 ? (mutex.Enter(), true) : mutex.TryEnter());
                    for (int i = 0; i != depth; ++i)
                        mutex.Leave();
                    const int before = counter;
                    if (round % 64 == 0)
                        std::this_thread::yield();
                    counter = before + 1;
                    mutex.Leave();
                }
            });
        start.Open();
        for (std::thread& thread : all)
            thread.join();
        EXPECT_EQ(counter, threads * rounds);
    }
}

TEST(Mutex, OperationsKeepTheirPlaces) {
    const std::vector<int> behindTheDestructor{2, 3, 4};
    EXPECT_EQ(Slots(&TProtectionGuard::Enter, &TProtectionGuard::TryEnter, &TProtectionGuard::Leave), behindTheDestructor);
}

} // namespace
