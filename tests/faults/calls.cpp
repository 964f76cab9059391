#include "calls.h"
#include <support/failing_new.h>

#include <kest/foundation/unwinding.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <type_traits>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

namespace Kest::Test {

namespace {

thread_local TPlan* Current = nullptr;
thread_local int Held = 0;

/// The C library's call, looked up by the first who makes it. Sanitizers stand before it, with Clang in the program itself, where the
/// search for the next definition does not find them: they are @p intercepted, null elsewhere.
template <class TFunction>
class TReal {
public:
    constexpr TReal(const char* symbol, TFunction* intercepted) : Symbol(symbol), Place(intercepted) {}

    TFunction* Get() {
        TFunction* function = Place.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<TFunction*>(::dlsym(RTLD_NEXT, Symbol));
            Place.store(function, std::memory_order_relaxed);
        }
        return function;
    }

private:
    const char* const Symbol;
    std::atomic<TFunction*> Place;
};

void CountLocks(TCall call) {
    if (call == TCall::pthread_mutex_lock || call == TCall::pthread_mutex_trylock)
        ++Held;
    else if (call == TCall::pthread_mutex_unlock)
        --Held;
}

/// The result of a call that fails by @p rule.
template <class TResult>
TResult Failure(TCall call, const TRule& rule) {
    const bool returnsCode = std::strncmp(NameOf(call), "pthread_", 8) == 0;
    if (!returnsCode)
        errno = rule.Code;
    const std::intptr_t usual = returnsCode ? rule.Code : std::is_pointer_v<TResult> ? 0 : -1;
    const std::intptr_t result = rule.Result.value_or(usual);
    if constexpr (std::is_pointer_v<TResult>)
        return reinterpret_cast<TResult>(result);
    else
        return static_cast<TResult>(result);
}

/// Gives the handle of a new thread only when pthread_create returns, as the system may do.
class TLateHandle {
public:
    explicit TLateHandle(pthread_t* place) : Place(place) {}
    TLateHandle(const TLateHandle&) = delete;
    TLateHandle& operator=(const TLateHandle&) = delete;
    ~TLateHandle() { *Place = Handle; }
    operator pthread_t*() { return &Handle; }

private:
    pthread_t* const Place;
    pthread_t Handle = 0;
};

/// What the program gets for @p result of the C library's call.
template <class TResult>
TResult Finish(TCall call, const TRule* rule, TResult result) {
    if (rule != nullptr) {
        TPlan* const plan = std::exchange(Current, nullptr);
        rule->Last();
        Current = plan;
        return Failure<TResult>(call, *rule);
    }
    if (result == TResult())
        CountLocks(call);
    return result;
}

std::vector<std::string>& Cases() {
    static std::vector<std::string> cases;
    return cases;
}

} // namespace

TPlan::TArmed::TArmed(TPlan* plan) : Before(Current) {
    Current = plan;
}

TPlan::TArmed::~TArmed() {
    Current = Before;
}

const TRule* TPlan::Note(TCall call, const TDetail& detail) {
    TPlan* const plan = Current;
    if (plan == nullptr)
        return nullptr;
    const TArmed unarmed(nullptr);
    if (plan->Made == std::size(plan->Entries))
        std::abort(); // a plan has room for a few calls
    plan->Entries[plan->Made++] = {call, detail};
    const int number = plan->CountOf(call);
    for (const TRule& rule : plan->Rules) {
        if (rule.Call != call || number < rule.From || number - rule.From >= rule.Count)
            continue;
        if (rule.First)
            rule.First();
        return rule.IsPassed ? nullptr : &rule;
    }
    return nullptr;
}

TPlan::TDetail::TDetail(const char* text) {
    if (std::strncmp(text, ".kest-", 6) == 0)
        text = "fresh"; // and some numbers
    const char* const slash = std::strrchr(text, '/');
    (void)std::snprintf(Text, sizeof Text, "%s", slash == nullptr ? text : slash + 1);
}

int TPlan::CountOf(TCall call) const {
    return static_cast<int>(std::count_if(Entries, Entries + Made, [&](const auto& entry) { return entry.first == call; }));
}

std::vector<TRule> TPlan::ForEach(const TRule& rule, std::size_t first) const {
    std::vector<TRule> rules;
    for (std::size_t index = first; index < Made; ++index) {
        const TCall call = Entries[index].first;
        const auto number = std::count_if(Entries, Entries + index + 1, [&](const auto& entry) { return entry.first == call; });
        rules.push_back(rule.At(static_cast<int>(number)));
        rules.back().Call = call;
    }
    return rules;
}

std::string TPlan::Log(std::initializer_list<TCall> calls) const {
    std::string log;
    for (const auto* entry = Entries; entry != Entries + Made; ++entry)
        if (std::find(calls.begin(), calls.end(), entry->first) != calls.end())
            log.append(log.empty() ? "" : " ").append(NameOf(entry->first)).append("(").append(entry->second.Text).append(")");
    return log;
}

int LocksHeld() {
    return Held;
}

TCase::TCase(const std::string& call, const std::string& operation, const std::string& outcome) {
    Cases().push_back(std::string("case | `").append(call).append("` | ").append(operation).append(" | ").append(outcome));
}

const char* NameOf(TCall call) {
    static constexpr const char* names[] = {
#define CALL(name, ...) #name,
#include "call_table.h"
    };
    return names[static_cast<int>(call)];
}

namespace {

// What page.py compares with the page and with what the library imports.
TEST(Fault, CasesAreListed) {
#define CALL(name, ...) std::cout << "call " #name "\n";
#define NEVER(name) std::cout << "never " #name "\n";
#define RUNTIME(...)
#include "call_table.h"
    for (const std::string& each : Cases())
        std::cout << each << '\n';
    EXPECT_FALSE(Cases().empty());
}

// The calls themselves. Their names here are of our own, so that no declaration of a header is in the way; the linker sees the symbol.
// A cancellation may leave their frames, which have nothing to clean up: see the library's mark for such functions.
#define CALL(...) FORM(__VA_ARGS__)
#define FORM(name, symbol, ...) KEST_DEFINE(name, symbol, __VA_ARGS__)
// NOLINTBEGIN(bugprone-macro-parentheses): parameters and arguments come in their own
#define KEST_DEFINE(name, symbol, type, parameters, arguments, detail)                                                                     \
    extern "C" __attribute__((weak)) type Intercepted_##symbol parameters __asm__("__interceptor_" #symbol);                               \
    TReal<type parameters> Real_##symbol{#symbol, Intercepted_##symbol};                                                                   \
    extern "C" type Faulty_##symbol parameters __asm__(#symbol);                                                                           \
    extern "C" KEST_LEFT_BY_CANCELLATION type Faulty_##symbol parameters {                                                                 \
        const TRule* const rule = TPlan::Note(TCall::name, TPlan::TDetail{detail});                                                        \
        if (rule != nullptr && !rule->IsMade)                                                                                              \
            return Failure<type>(TCall::name, *rule);                                                                                      \
        return Finish<type>(TCall::name, rule, Real_##symbol.Get() arguments);                                                             \
    }
// NOLINTEND(bugprone-macro-parentheses)
#include "call_table.h"

/// A look-up forgets the loader's last failure, so dlerror itself is looked up before any failure.
[[maybe_unused]] auto* const LoaderText = Real_dlerror.Get();

} // namespace

} // namespace Kest::Test

// Not weak: those of AddressSanitizer with Clang are, and come first. Those of ThreadSanitizer with Clang let nobody in their place.
#ifndef KEST_THREAD_SANITIZER_OF_CLANG
void* operator new(std::size_t size) {
    return Kest::Test::Allocate(size);
}
void* operator new[](std::size_t size) {
    return Kest::Test::Allocate(size);
}
void operator delete(void* block) noexcept {
    Kest::Test::Release(block);
}
void operator delete[](void* block) noexcept {
    Kest::Test::Release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    Kest::Test::Release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    Kest::Test::Release(block);
}
#endif
