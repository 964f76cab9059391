// Loads every plug-in of a folder and lets it compute: plugins FOLDER. One that cannot be loaded does not stop the others.
#include "plugin.h"

#include <kest/kest.h>

#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace Kest::System;

namespace {

/// A library that is known to be a plug-in. What it gave away is valid as long as the object lives.
class TLoaded {
public:
    /// @throw EException  it is no library, or no plug-in of this version.
    explicit TLoaded(const std::string& path) : Library(path) {
        // POSIX lets the address of data be that of a function.
        const auto get = reinterpret_cast<const TPlugin* (*)()>(Library.GetSymbolAddress("GetPlugin"));
        if (get == nullptr)
            throw Kest::EException(path + " is no plug-in");
        Plugin = get();
        if (Plugin == nullptr || Plugin->Version != PLUGIN_VERSION)
            throw Kest::EException(path + " is a plug-in of another version");
    }

    const TPlugin& Get() const { return *Plugin; }

private:
    TDLL Library; // declared first, so unloaded last
    const TPlugin* Plugin = nullptr;
};

std::set<std::string> PathsIn(const std::string& folder) {
    std::set<std::string> paths;
    TDirectory directory(folder);
    try {
        while (true) {
            const std::string name = directory.Read().GetName();
            if (GetFileNameMatch(name, "*.so"))
                paths.insert(std::string(folder).append("/").append(name)); // with a slash, or the loader would look in its own places
        }
    } catch (const TDirectory::EEnd&) {
    }
    return paths;
}

} // namespace

int main(int count, char** arguments) try {
    std::vector<std::unique_ptr<TLoaded>> plugins;
    for (const std::string& path : PathsIn(GetFullPathName(count > 1 ? arguments[1] : ".")))
        try {
            plugins.push_back(std::make_unique<TLoaded>(path));
        } catch (const Kest::EException& failure) {
            std::cout << "skipped: " << failure.GetMessage() << std::endl;
        }
    for (const auto& plugin : plugins)
        std::cout << plugin->Get().Name << ": " << plugin->Get().Compute(40, 2) << std::endl;
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
}
