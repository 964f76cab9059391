#include "world.h"

#include <set>

using namespace Kest::Test;
using namespace Kest::System;
using C = TCall;

// Tests what happens to files when somebody else acts, or a call fails, before each single call that an operation makes.

namespace {

const TTree Before = {"from=content", "other=new", "to=old"};
const TRule Far{C::rename, EXDEV};
const TRule Fast = TRule(C::fsync, 0).Giving(0); ///< no disk is waited for

void MoveFar(const std::string& from, const std::string& to) {
    TPlan plan({Far, Fast});
    plan.Run([&] { OutcomeOf([&] { TFile::Rename(from, to); }); });
}

/// What somebody else does, and the name that loses its content by that.
struct TActor {
    const char* Name;
    const char* Target;
    std::function<void(TWorld&)> Act;
};

const TActor Actors[] = {
    {"replaces the source", "from", [](TWorld& w) { (void)::rename((w.Place / "other").c_str(), w.From.c_str()); }},
    {"moves the source away", "", [](TWorld& w) { (void)::rename(w.From.c_str(), (w.Place / "away").c_str()); }},
    {"moves the source to the destination", "to", [](TWorld& w) { (void)::rename(w.From.c_str(), w.To.c_str()); }},
    {"links the destination to the source", "to", // without a moment in which there is none
     [](TWorld& w) {
         if (::access(w.From.c_str(), F_OK) == 0 && ::symlink("from", (w.Place / "link").c_str()) == 0)
             (void)::rename((w.Place / "link").c_str(), w.To.c_str());
     }},
    {"lengthens the source", "from",
     [](TWorld& w) {
         if (const int file = ::open(w.From.c_str(), O_WRONLY | O_APPEND); file >= 0) {
             EXPECT_EQ(::write(file, "+", 1), 1);
             (void)::close(file);
         }
     }},
    {"replaces the destination", "to", [](TWorld& w) { (void)::rename((w.Place / "other").c_str(), w.To.c_str()); }},
    {"moves the destination away", "", [](TWorld& w) { (void)::rename(w.To.c_str(), (w.Place / "away").c_str()); }},
    {"moves the destination to the source", "from", [](TWorld& w) { (void)::rename(w.To.c_str(), w.From.c_str()); }},
    {"removes the destination", "to", [](TWorld& w) { (void)::unlink(w.To.c_str()); }},
    {"removes the source", "from", [](TWorld& w) { (void)::unlink(w.From.c_str()); }},
    {"moves the source like this", "to", [](TWorld& w) { MoveFar(w.From, w.To); }},
    {"moves the source elsewhere like this", "", [](TWorld& w) { MoveFar(w.From, w.Place / "away"); }},
    {"moves another file to the destination like this", "to", [](TWorld& w) { MoveFar(w.Place / "other", w.To); }},
    {"moves the destination elsewhere like this", "", [](TWorld& w) { MoveFar(w.To, w.Place / "away"); }},
};

struct TOperation {
    const char* Name;
    void (*Body)(TWorld&);
    std::vector<TRule> Rules;
    TTree Tree;
    C Replacing; ///< the first such call replaces the destination
};

const TOperation Operations[] = {
    {"a copy", [](TWorld& w) { TFile::Copy(w.From, w.To); }, {}, Before, C::remove}, // never
    {"a move over file systems", [](TWorld& w) { _RenameHelper(w.From, w.To); }, {Far, Fast}, Before, C::renameat},
    {"a move between hard links", [](TWorld& w) { _RenameHelper(w.From, w.To); }, {}, {"from=content", "other=new", "to&from"}, C::rename},
};

bool Holds(const TTree& tree, const std::string& content) {
    return std::any_of(tree.begin(), tree.end(), [&](const std::string& entry) { return entry.substr(entry.find('=') + 1) == content; });
}

/// The calls of an operation that nobody disturbs.
void NoteCalls(const TOperation& operation, TPlan& plan) {
    TWorld world(operation.Tree);
    plan.Run([&] { operation.Body(world); });
}

/// @p Operation, and who acts before any of its calls.
struct TRow {
    friend std::ostream& operator<<(std::ostream& out, const TRow& row) { return out << row.Actor.Name << " in " << row.Operation.Name; }

    TOperation Operation;
    TActor Actor;
};

std::vector<TRow> AllRows() {
    std::vector<TRow> rows;
    for (const TOperation& operation : Operations)
        for (const TActor& actor : Actors)
            rows.push_back({operation, actor});
    return rows;
}

using SomebodyElse = testing::TestWithParam<TRow>;
INSTANTIATE_TEST_SUITE_P(Rows, SomebodyElse, testing::ValuesIn(AllRows()), TNameOfRow());

TEST_P(SomebodyElse, MakesNoContentVanishBetweenTwoCalls) {
    const TOperation& operation = GetParam().Operation;
    const TActor& actor = GetParam().Actor;
    TPlan calm(operation.Rules);
    NoteCalls(operation, calm);
    std::size_t index = 0;
    TWorld* place = nullptr;
    bool isReplaced = false;
    std::set<std::string> kept;
    std::string atDestination;
    const auto act = [&] {
        const std::string target = place->Place / (*actor.Target == 0 ? "nothing" : actor.Target);
        const std::string doomed = ReadFile(target);
        actor.Act(*place);
        kept.clear();
        for (const std::string& entry : TreeOf(place->Place.GetPath()))
            if (entry.find('=') != std::string::npos && (isReplaced || entry[0] != '.')) // before that a fresh name belongs to a copy
                kept.insert(entry.substr(entry.find('=') + 1));
        if (ReadFile(target) != doomed)
            kept.erase(doomed);
        atDestination = ReadFile(place->To);
    };
    for (const TRule& rule : calm.ForEach(TRule(C::rename, act))) {
        SCOPED_TRACE("before call " + std::to_string(index++) + ", " + NameOf(rule.Call));
        TWorld world(operation.Tree);
        place = &world;
        std::vector<TRule> rules{rule};
        rules.insert(rules.end(), operation.Rules.begin(), operation.Rules.end());
        TPlan plan(rules);
        const int before = OpenDescriptors();
        const std::string outcome = plan.Run([&] { return OutcomeOf([&] { operation.Body(world); }); });
        EXPECT_EQ(OpenDescriptors(), before);
        const TTree tree = TreeOf(world.Place.GetPath());
        const bool isCopy = operation.Replacing == C::remove;
        if (isCopy) // a copy empties and overwrites the destination in any case
            kept.erase("old"), kept.erase("");
        const bool mayReplace = isCopy || outcome.empty() || outcome.find("remove failed") != std::string::npos;
        if (mayReplace && !isReplaced && atDestination != "content")
            kept.erase(atDestination);
        for (const std::string& content : kept)
            EXPECT_TRUE(Holds(tree, content)) << content << ", " << outcome << testing::PrintToString(tree);
        isReplaced = isReplaced || rule.Call == operation.Replacing;
        EXPECT_TRUE(tree.empty() || tree[0][0] != '.') << testing::PrintToString(tree) << " holds a fresh name";
    }
}

TEST(Fault, MoveOverFileSystemsMakesItsCallsInThisOrder) {
    TPlan plan({Far, TRule(C::copy_file_range, EXDEV)});
    NoteCalls(Operations[1], plan);
    EXPECT_EQ(plan.Log({C::rename, C::openat, C::copy_file_range, C::write, C::futimens, C::fsync, C::close, C::fstatat, C::statx,
                        C::renameat, C::renameat2, C::unlinkat}),
              "rename(from) openat() openat() fstatat(from) openat(from) statx() fstatat(to) openat(fresh) copy_file_range() write() "
              "futimens() fsync() "
              "close() fstatat(from) renameat(fresh) fsync() fstatat(to) renameat2(from) fstatat(fresh) fstatat(to) unlinkat(fresh) "
              "close() close() close() close()");
}

TEST(Fault, MoveOverFileSystemsThatFailsAtAnyCallLosesNothing) {
    TPlan calm({Far});
    NoteCalls(Operations[1], calm);
    bool isReplaced = false;
    for (const TRule& rule : calm.ForEach(TRule(C::rename, EIO), 1)) { // the first one has failed
        SCOPED_TRACE(std::string(NameOf(rule.Call)) + " number " + std::to_string(rule.From));
        TWorld world(Before);
        TPlan plan({rule.Call == C::close ? rule.Made() : rule, Far});
        std::string outcome(1000, '\0');
        const auto before = Resources();
        outcome.assign(plan.Run([&] { return OutcomeOf([&] { _RenameHelper(world.From, world.To); }); }).c_str());
        ExpectNothingLeaked(before);
        const TTree tree = TreeOf(world.Place.GetPath());
        if (outcome.empty())
            EXPECT_EQ(tree, (TTree{"other=new", "to=content"}));
        else
            EXPECT_EQ(tree, isReplaced ? (TTree{"from=content", "other=new"}) : Before) << outcome;
        isReplaced = isReplaced || rule.Call == Operations[1].Replacing;
    }
}

// Where case is folded, the second name comes and goes with the first.
TEST(Fault, OneEntryByTwoNamesIsNeitherRemovedNorPutAsideForNothing) {
    const TRule idle = TRule(C::rename, 0).Giving(0);
    for (const bool isLinked : {false, true}) {
        TWorld world(isLinked ? TTree{"from=content", "more&from"} : TTree{"from=content"});
        const auto appear = [&] { (void)(isLinked ? ::link : ::rename)(world.From.c_str(), world.To.c_str()); };
        TPlan plan({idle, TRule(C::lstat, appear).At(2), TRule(C::renameat2, [&] { (void)::unlink(world.To.c_str()); })});
        plan.Run([&] { _RenameHelper(world.From, world.To); });
        EXPECT_EQ(TreeOf(world.Place.GetPath()), isLinked ? (TTree{"more=content", "to=content"}) : TTree{"to=content"});
        EXPECT_EQ(plan.CountOf(C::renameat2), isLinked ? 2 : 0) << "one name alone is no hard link";
    }
}

// The only case in which a fresh name stays: a file system with neither hard links nor a rename that replaces nothing.
FAULT_TEST(WhatCannotBePutBackKeepsItsFreshName, linkat, "_RenameHelper, over file systems, of a source that is put back",
           "the failure for which it is put back, and the file keeps its fresh name") {
    TWorld world(Before);
    TPlan plan({Far, TRule(C::unlinkat, EIO).At(1), {C::linkat, EPERM}, {C::renameat2, EINVAL}});
    EXPECT_EQ(plan.Run([&] { return OutcomeOf([&] { _RenameHelper(world.From, world.To); }); }),
              "EException: cross device link: tryed to copy and remove: remove failed");
    const TTree tree = TreeOf(world.Place.GetPath());
    EXPECT_TRUE(tree.size() == 3 && tree[0][0] == '.' && tree[2] == "to=content") << testing::PrintToString(tree);
}

TEST(Fault, CopyThatIsTakenAwayGoesAlsoWhereItsNameIsTaken) {
    TWorld world(Before);
    const auto act = [&] {
        (void)::rename(world.From.c_str(), (world.Place / "away").c_str());
        (void)::rename((world.Place / "other").c_str(), world.To.c_str());
    };
    TPlan plan({Far, TRule(C::unlinkat, EIO).At(1), TRule(C::renameat2, 0).Giving(0).At(3).Made(act)});
    plan.Run([&] { OutcomeOf([&] { _RenameHelper(world.From, world.To); }); });
    EXPECT_EQ(TreeOf(world.Place.GetPath()), (TTree{"away=content", "to=new"}));
}

} // namespace
