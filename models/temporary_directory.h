#ifndef KEST_MODELS_TEMPORARY_DIRECTORY_H
#define KEST_MODELS_TEMPORARY_DIRECTORY_H

/// @file
/// A directory for a test or a fuzz target.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Kest::Test {

/// Makes an empty directory of the test's own. The path is short, so that it fits into the address of a socket. The destructor removes the
/// directory with all that it holds.
class TTemporaryDirectory {
public:
    TTemporaryDirectory() : Path((std::filesystem::temp_directory_path() / "kest-XXXXXX").string()) {
        if (::mkdtemp(Path.data()) == nullptr)
            throw std::runtime_error("no temporary directory " + Path);
    }
    TTemporaryDirectory(const TTemporaryDirectory&) = delete;
    TTemporaryDirectory& operator=(const TTemporaryDirectory&) = delete;
    ~TTemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(Path, ignored);
    }

    const std::string& GetPath() const { return Path; }

    /// The path of @p name in this directory.
    std::string operator/(const std::string& name) const { return Path + "/" + name; }

private:
    std::string Path;
};

} // namespace Kest::Test

#endif
