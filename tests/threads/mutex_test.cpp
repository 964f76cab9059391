#include <kest/threads/mutex.h>

#include "support/helper_thread.h"

#include <gtest/gtest.h>

#include <mutex>
#include <type_traits>

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

TEST(Mutex, IsTakenByTheScopesOfTheStandardLibrary) {
    TMutex plain(false), recursive(true);
    {
        const std::scoped_lock both(plain, recursive);
        EXPECT_FALSE(OthersMayEnter(plain) || OthersMayEnter(recursive));
        EXPECT_FALSE(std::unique_lock<TMutex>(plain, std::try_to_lock).owns_lock());
        const std::lock_guard<TProtectionGuard> again(recursive);
    }
    EXPECT_TRUE(OthersMayEnter(plain) && OthersMayEnter(recursive));
}

} // namespace
