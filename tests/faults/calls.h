#ifndef KEST_TESTS_FAULTS_CALLS_H
#define KEST_TESTS_FAULTS_CALLS_H

#include <climits>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The program defines the calls of call_table.h in front of the C library's: every call that the process makes comes here first.
/// Without a plan a call goes straight on to the C library.
namespace Kest::Test {

enum class TCall {
#define CALL(name, ...) name,
#include "call_table.h"
};

const char* NameOf(TCall call);

/// What happens to some of the calls of one kind.
struct TRule {
    TRule(TCall call, int code) : Call(call), Code(code) {} ///< the calls fail
    TRule(TCall call, const void* result) : Call(call), Result(reinterpret_cast<std::intptr_t>(result)) {}
    TRule(TCall call, std::function<void()> first) : Call(call), IsPassed(true), First(std::move(first)) {} ///< made, after @p first

    /// Only the calls from the @p from-th on, @p count of them.
    TRule At(int from, int count = 1) const {
        TRule rule = *this;
        rule.From = from;
        rule.Count = count;
        return rule;
    }
    /// The call is made and then fails, as a close that fails has closed; @p last runs after it.
    TRule Made(std::function<void()> last = [] {}) const {
        TRule rule = *this;
        rule.IsMade = true;
        rule.Last = std::move(last);
        return rule;
    }
    TRule Giving(std::intptr_t result) const {
        TRule rule = *this;
        rule.Result = result;
        return rule;
    }

    TCall Call;
    int Code = 0;                        ///< what errno becomes, or the result of calls that return their code
    std::optional<std::intptr_t> Result; ///< a result other than that of a failure
    int From = 1;
    int Count = INT_MAX;
    bool IsMade = false;
    bool IsPassed = false; ///< the call takes place and its result counts
    std::function<void()> First, Last;
};

/// Rules for the calls that one thread makes inside Run(), and the log of them.
class TPlan {
public:
    explicit TPlan(std::vector<TRule> rules = {}) : Rules(std::move(rules)) {}
    TPlan(const TPlan&) = delete;
    TPlan& operator=(const TPlan&) = delete;

    template <class TAction>
    auto Run(const TAction& action) {
        const TArmed armed(this);
        return action();
    }

    int CountOf(TCall call) const;

    /// For each of the calls made, beginning with the @p first, a @p rule for that call alone.
    std::vector<TRule> ForEach(const TRule& rule, std::size_t first = 0) const;

    /// The calls of these kinds in their order, with their details: "connect() select(1)".
    std::string Log(std::initializer_list<TCall> calls) const;

    struct TDetail {
        TDetail() = default;
        TDetail(const char* text);
        TDetail(long number) { (void)std::snprintf(Text, sizeof Text, "%ld", number); }

        char Text[20] = ""; ///< of a fixed size, like the log: a test may leave no memory
    };

    /// Notes a call of the calling thread. Returns the rule by which it does not go on to the C library, or goes there in vain.
    static const TRule* Note(TCall call, const TDetail& detail);

private:
    /// The calling thread's plan, while the object lives.
    class TArmed {
    public:
        explicit TArmed(TPlan* plan);
        TArmed(const TArmed&) = delete;
        TArmed& operator=(const TArmed&) = delete;
        ~TArmed();

    private:
        TPlan* Before;
    };

    const std::vector<TRule> Rules;
    std::pair<TCall, TDetail> Entries[500];
    std::size_t Made = 0;
};

/// The number of the system's locks that the calling thread holds.
int LocksHeld();

/// A case that a test has, as docs/faults.md lists it.
struct TCase {
    TCase(const std::string& call, const std::string& operation, const std::string& outcome);
};

} // namespace Kest::Test

/// A test of its own for what becomes of a call that fails in an operation.
#define FAULT_TEST(name, call, operation, outcome)                                                                                         \
    static const ::Kest::Test::TCase name##Case{#call, operation, outcome};                                                                \
    TEST(Fault, name)

#endif
