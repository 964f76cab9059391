// Checks path names of arbitrary bytes in a folder with all kinds of entries. The system's answer about a path decides whether the library
// must give a full path, and a full path is taken apart and checked.
#include "fuzz.h"

#include <kest/filesystem/file.h>
#include <kest/foundation/exception.h>
#include <models/temporary_directory.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

using namespace Kest::Fuzz;
using Kest::EException;
using Kest::System::GetFullPathName;
using Kest::System::TFile;

namespace {

/// The folder. It is the working folder for the rest of the run, so that short paths lead into it.
class TPlayground {
public:
    TPlayground() {
        std::filesystem::current_path(Folder.GetPath());
        std::filesystem::create_directories("a/b");
        for (const char* file : {"f", "a/f", "a/b/f", "a\\b", "a/\xFF\xFE", "a/ "})
            std::ofstream{file};
        std::filesystem::create_symlink("a/b", "l");
        std::filesystem::create_symlink("../f", "a/u");
        std::filesystem::create_symlink("nothing", "d");
        std::filesystem::create_symlink("o", "o");
        std::filesystem::create_symlink("/", "a/r");
        Written = WhenWritten();
    }

    bool IsUntouched() const { return WhenWritten() == Written; }

private:
    /// The times at which entries were last made or removed.
    static std::string WhenWritten() {
        std::ostringstream text;
        for (const char* folder : {".", "a", "a/b"}) {
            struct stat state {};
            (void)::stat(folder, &state);
            text << state.st_mtim.tv_sec << '.' << state.st_mtim.tv_nsec << ' ';
        }
        return text.str();
    }

    Kest::Test::TTemporaryDirectory Folder;
    std::string Written;
};

/// The result of @p operation, or nothing when it refuses the path.
std::optional<std::string> ResultOf(std::string (&operation)(const std::string&), const std::string& path) {
    try {
        return operation(path);
    } catch (const EException& error) {
        RequireEqual(error.GetMessage(), "Kest: realpath() failed", "the message");
        return {};
    }
}

/// Whether a path is absolute and has no empty component, no ".", no ".." and no component that is a symbolic link.
bool IsCanonical(const std::string& path) {
    if (path == "/")
        return true;
    std::size_t begin = 0;
    while (begin != path.size()) {
        if (path[begin] != '/')
            return false;
        const std::size_t end = std::min(path.find('/', begin + 1), path.size());
        const std::string component = path.substr(begin + 1, end - begin - 1);
        if (component.empty() || component == "." || component == "..")
            return false;
        struct stat state {};
        if (::lstat(path.substr(0, end).c_str(), &state) != 0 || S_ISLNK(state.st_mode))
            return false;
        begin = end;
    }
    return true;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TPlayground playground;
    std::string path(reinterpret_cast<const char*>(data), size);
    path.erase(0, path.find_first_not_of('/')); // a relative path begins in the folder
    const std::string systemPath = UpToZero(path);

    const std::optional<std::string> full = ResultOf(GetFullPathName, path);
    const std::optional<std::string> folder = ResultOf(TFile::GetPathName, path);
    struct stat before {};
    Require(full.has_value() == (::stat(systemPath.c_str(), &before) == 0), "there is a full path when there is a file");
    Require(folder.has_value() == full.has_value(), "and then there is its folder");
    if (full) {
        struct stat after {};
        Require(IsCanonical(*full), "a full path is canonical");
        Require(::stat(full->c_str(), &after) == 0 && after.st_dev == before.st_dev && after.st_ino == before.st_ino, "of the same file");
        RequireEqual(GetFullPathName(*full), *full, "and its own full path");
        const std::size_t rest = full->size() - folder->size();
        Require(rest != 0 && full->compare(0, folder->size(), *folder) == 0, "the folder is its beginning");
        Require(full->find_first_of("/\\", folder->size()) == folder->size() && full->find_last_of("/\\") == folder->size(),
                "up to the last separator");
    }
    Require(playground.IsUntouched(), "nothing is created or removed");
    return 0;
}
