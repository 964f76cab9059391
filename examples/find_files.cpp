// Lists the entries of a tree of directories whose names match a pattern: type, size in bytes, local modification time, path.
//
// Shows      how to read directories, ask for the state of files, match names, and tell one directory from another.
// Arguments  DIR PATTERN. Links are followed, and listed as links where they lead nowhere. A directory with two
//            paths is listed under the first; the second path is reported. A terminal gets control characters in names as \033.
// Status     0; 1 something could not be looked at, or the list not be written; 2 bad arguments.

#include <kest/filesystem/directory.h>
#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>
#include <kest/foundation/exception.h>
#include <kest/text/system_text.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using namespace Kest::System;

namespace {

constexpr int ExitFine = 0;
constexpr int ExitIncomplete = 1;
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

/// Whether @p path is a link that leads nowhere. Then this gives the link's own state, since a TState has the state of a link's target.
bool IsDangling(const std::string& path, struct stat& link) {
    const std::string systemPath = UTF8ToSystem(path);
    struct stat target {};
    const bool leadsNowhere = ::stat(systemPath.c_str(), &target) != 0 && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP);
    return leadsNowhere && ::lstat(systemPath.c_str(), &link) == 0 && S_ISLNK(link.st_mode);
}

/// How many bytes of UTF-8 at @p position are a control character, which a terminal would obey: one, two or none.
std::size_t ControlLength(const std::string& text, std::size_t position) {
    const auto byte = static_cast<unsigned char>(text[position]);
    const auto next = static_cast<unsigned char>(text.c_str()[position + 1]);
    if (byte < 0x20 || byte == 0x7F)
        return 1;
    return byte == 0xC2 && next >= 0x80 && next < 0xA0 ? 2 : 0; // U+0080 to U+009F
}

/// @p text as it is written to @p descriptor. For a terminal, each byte of a control character becomes a backslash and three octal digits.
std::string Shown(const std::string& text, int descriptor) {
    if (::isatty(descriptor) == 0)
        return text;
    std::string shown;
    std::size_t toEscape = 0;
    for (std::size_t position = 0; position < text.size(); ++position) {
        if (toEscape == 0)
            toEscape = ControlLength(text, position);
        if (toEscape == 0) {
            shown += text[position];
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned char>(text[position]));
        shown += escape;
        --toEscape;
    }
    return shown;
}

void List(const char* type, std::int64_t size, double time, const std::string& path) {
    std::printf("%-9s %12" PRId64 " %s %s\n", type, size, LocalTimeText(time).c_str(), Shown(path, STDOUT_FILENO).c_str());
}

void Tell(const std::string& path, const std::string& text) {
    std::fprintf(stderr, "%s: %s\n", Shown(path, STDERR_FILENO).c_str(), Shown(text, STDERR_FILENO).c_str());
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
        const bool isWanted = GetFileNameMatch(name, Pattern);
        struct stat link {};
        if (IsDangling(path, link)) {
            if (isWanted)
                List("link", link.st_size, static_cast<double>(link.st_mtime), path);
            return;
        }
        Try(path, [&] {
            const TFile::TState state(path);
            if (isWanted)
                List(NameOf(state.GetType()), state.GetSize(), state.GetLastModificationTime(), path);
            if (state.GetType() == TFile::Directory)
                Enter(path);
        });
    }

    /// Notes a directory that is to be read, unless it was noted under another name: links may lead in a circle.
    void Enter(const std::string& path) {
        Try(path, [&] {
            const auto [known, isNew] = Known.emplace(GetFullPathName(path), path);
            if (isNew)
                Waiting.push_back(path);
            else
                Tell(path, "the same directory as " + known->second + ", listed there");
        });
    }

    template <class TStep>
    void Try(const std::string& path, const TStep& step) {
        try {
            step();
        } catch (const Kest::EException& failure) {
            Tell(path, "passed over: " + failure.GetMessage());
            IsComplete = false;
        }
    }

    const std::string Pattern;
    std::map<std::string, std::string> Known; ///< all directories met so far, by full path: the path they were met under
    std::vector<std::string> Waiting;         ///< those of them still to be read, by the path they were met under
    bool IsComplete = true;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 || *argv[1] == 0) {
        std::fprintf(stderr,
                     "usage: %s DIR PATTERN\n"
                     "Prints every entry below DIR whose name matches PATTERN: type, size in bytes, local modification time, path.\n"
                     "Links are followed.\n"
                     "Exit status: 0; 1 something could not be looked at, or the list not be written; 2 bad arguments.\n",
                     argv[0]);
        return ExitUsage;
    }
    const bool isComplete = TSearch(argv[2]).Walk(argv[1]);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fputs("the list could not be written\n", stderr);
        return ExitIncomplete;
    }
    return isComplete ? ExitFine : ExitIncomplete;
}
