// Renames a file, over file systems too, and says what happened and, when it failed, what exists now.
//
// Shows      TFile::Rename, what its exception tells, and the state of files.
// Arguments  FROM TO. A file named TO is replaced.
// Status     0 moved; 1 not moved, the reason and what exists now are told; 2 bad arguments; 3 moved, but that could not be written.

#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>
#include <kest/foundation/exception.h>
#include <kest/text/system_text.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include <sys/stat.h>

using namespace Kest::System;

namespace {

constexpr int ExitMoved = 0;
constexpr int ExitFailed = 1;
constexpr int ExitUsage = 2;
constexpr int ExitUntold = 3;

/// What is at @p path now, for a person to read.
std::string Describe(const std::string& path) {
    try {
        const TFile::TState state(path);
        const bool isRegular = state.GetType() == TFile::Regular;
        const std::string kind = isRegular                             ? "a file of " + std::to_string(state.GetSize()) + " bytes"
                                 : state.GetType() == TFile::Directory ? "a directory"
                                                                       : "neither a file nor a directory";
        return "'" + path + "' is " + kind;
    } catch (const Kest::EException& failure) {
        struct stat entry {}; // of the link itself, where it leads nowhere
        const bool isThere = ::lstat(UTF8ToSystem(path).c_str(), &entry) == 0;
        if (!isThere && (errno == ENOENT || errno == ENOTDIR))
            return "'" + path + "' does not exist";
        return "'" + path + (isThere ? "' is there, but cannot be looked at (" : "' cannot be looked at (") + failure.GetMessage() + ")";
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr,
                     "usage: %s FROM TO\n"
                     "Renames FROM to TO, replacing a file of that name; over file systems it copies and removes.\n"
                     "Exit status: 0 moved; 1 not moved, the reason and what exists now are told; 2 bad arguments;\n"
                     "             3 moved, but that could not be written.\n",
                     argv[0]);
        return ExitUsage;
    }
    const std::string from = argv[1];
    const std::string to = argv[2];
    try {
        TFile::Rename(from, to);
    } catch (const Kest::EException& failure) {
        std::fprintf(stderr, "not moved: %s\nnow: %s; %s\n", failure.GetMessage().c_str(), Describe(from).c_str(), Describe(to).c_str());
        return ExitFailed;
    }
    std::printf("moved: %s\n", Describe(to).c_str());
    if (std::fflush(stdout) != 0) {
        std::fputs("moved, but standard output could not be written\n", stderr);
        return ExitUntold;
    }
    return ExitMoved;
}
