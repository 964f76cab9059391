// Walks a tree of directories and prints every entry whose name matches a pattern: type, size, local modification time, path.

#include <kest/filesystem/directory.h>
#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>
#include <kest/foundation/exception.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <set>
#include <string>
#include <utility>
#include <vector>

using namespace Kest::System;

namespace {

constexpr int ExitFine = 0;
constexpr int ExitPassedOver = 1;
constexpr int ExitUsage = 2;

const char* NameOf(TFile::TType type) {
    switch (type) {
    case TFile::Regular:
        return "file";
    case TFile::Directory:
        return "directory";
    case TFile::Fifo:
        return "fifo";
    case TFile::Device:
        return "device";
    default:
        return "other";
    }
}

/// "2026-11-24 21:21:38" in the local zone.
std::string LocalTimeText(double time) {
    const auto instant = static_cast<time_t>(time);
    struct tm parts {};
    char text[64];
    if (::localtime_r(&instant, &parts) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0)
        return "(no such time)";
    return text;
}

class TSearch {
public:
    explicit TSearch(std::string pattern) : Pattern(std::move(pattern)) {}

    /// Looks through the tree under @p root; true when nothing had to be passed over.
    bool Walk(const std::string& root) {
        Enter(root);
        while (!Waiting.empty()) {
            const std::string directory = std::move(Waiting.back());
            Waiting.pop_back();
            Try(directory, [&] { ReadAll(directory); });
        }
        return IsComplete;
    }

private:
    /// One directory is open at a time, however deep the tree is.
    void ReadAll(const std::string& directory) {
        TDirectory reader(directory);
        try {
            for (;;)
                Visit(directory, reader.Read().GetName());
        } catch (const TDirectory::EEnd&) {
        }
    }

    void Visit(const std::string& directory, const std::string& name) {
        if (name == "." || name == "..")
            return;
        const std::string path = directory.back() == '/' ? directory + name : directory + '/' + name;
        Try(path, [&] {
            const TFile::TState state(path);
            if (GetFileNameMatch(name, Pattern))
                std::printf("%-9s %12" PRId64 " %s %s\n", NameOf(state.GetType()), state.GetSize(),
                            LocalTimeText(state.GetLastModificationTime()).c_str(), path.c_str());
            if (state.GetType() == TFile::Directory)
                Enter(path);
        });
    }

    /// Notes a directory to be read, unless it was noted under another name: links may lead round in a circle.
    void Enter(const std::string& path) {
        Try(path, [&] {
            if (Known.insert(GetFullPathName(path)).second)
                Waiting.push_back(path);
        });
    }

    template <class TStep>
    void Try(const std::string& path, const TStep& step) {
        try {
            step();
        } catch (const Kest::EException& failure) {
            std::fprintf(stderr, "%s: passed over: %s\n", path.c_str(), failure.GetMessage().c_str());
            IsComplete = false;
        }
    }

    const std::string Pattern;
    std::set<std::string> Known;      ///< full paths of all directories met so far
    std::vector<std::string> Waiting; ///< those of them still to be read, by the path they were met under
    bool IsComplete = true;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 || *argv[1] == 0) {
        std::fprintf(stderr,
                     "usage: %s DIR PATTERN\n"
                     "Prints every entry below DIR whose name matches PATTERN: type, size in bytes, local modification time, path.\n"
                     "Links are followed. Exit status: 0; 1 if something could not be looked at; 2 for this text.\n",
                     argv[0]);
        return ExitUsage;
    }
    const bool isComplete = TSearch(argv[2]).Walk(argv[1]);
    if (std::fflush(stdout) != 0) {
        std::perror("writing the results");
        return ExitPassedOver;
    }
    return isComplete ? ExitFine : ExitPassedOver;
}
