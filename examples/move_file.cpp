// Renames a file, over file systems too, and says what happened and, when it failed, what exists now.

#include <kest/filesystem/directory.h>
#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>

#include <cinttypes>
#include <cstdio>
#include <string>

using namespace Kest::System;

namespace {

constexpr int ExitMoved = 0;
constexpr int ExitFailed = 1;
constexpr int ExitUsage = 2;

/// Whether the folder of @p path has an entry of that name, a link that leads nowhere included.
bool IsEntry(const std::string& path) {
    const std::size_t separator = path.rfind('/');
    const std::string folder = separator == std::string::npos ? "." : path.substr(0, separator + 1);
    const std::string name = path.substr(separator + 1); // npos + 1 is 0
    try {
        TDirectory reader(folder);
        while (reader.Read().GetName() != name) {
        }
        return true;
    } catch (const Kest::EException&) { // the end, or no such folder
        return false;
    }
}

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
        if (IsEntry(path))
            return "'" + path + "' is there, but cannot be looked at (" + failure.GetMessage() + ")";
        return "'" + path + "' does not exist";
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr,
                     "usage: %s FROM TO\n"
                     "Renames FROM to TO, replacing a file of that name; over file systems it copies and removes.\n"
                     "Exit status: 0 moved; 1 not moved, the reason and what exists now are told; 2 for this text.\n",
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
    return ExitMoved;
}
