// Makes one tree of files like another: sync_tree SOURCE DESTINATION. Failures are told at the end and stop nothing else.
#include <kest/kest.h>

#include <filesystem>
#include <iostream>
#include <set>
#include <string>
#include <vector>

using namespace Kest::System;

namespace {

class TSync {
public:
    std::vector<std::string> Failures;
    int Copied = 0, Same = 0, Skipped = 0;

    void Directory(const std::string& source, const std::string& destination) {
        Attempt([&] {
            if (!Exists(destination))
                TDirectory::Create(destination);
            for (const std::string& name : NamesIn(source))
                Entry(source + '/' + name, destination + '/' + name);
        });
    }

private:
    template <class TAction>
    void Attempt(const TAction& action) {
        try {
            action();
        } catch (const Kest::EException& failure) { // of one entry: the others go on
            Failures.push_back(failure.GetMessage());
        }
    }

    static bool Exists(const std::string& path) {
        std::error_code ignored; // an entry that cannot be looked at fails where it is used
        return std::filesystem::exists(UTF8ToSystem(path), ignored);
    }

    /// The directory is closed before its entries are looked at: a deep tree needs one descriptor in all.
    static std::set<std::string> NamesIn(const std::string& path) {
        std::set<std::string> names;
        TDirectory directory(path);
        try {
            while (true)
                names.insert(directory.Read().GetName());
        } catch (const TDirectory::EEnd&) {
        }
        names.erase(".");
        names.erase("..");
        return names;
    }

    void Entry(const std::string& source, const std::string& destination) {
        std::error_code ignored;
        if (std::filesystem::is_symlink(UTF8ToSystem(source), ignored)) { // TState would follow the link, maybe in a circle
            ++Skipped;
            return;
        }
        Attempt([&] {
            const TFile::TState state(source);
            if (state.GetType() == TFile::Directory)
                Directory(source, destination);
            else if (state.GetType() != TFile::Regular) // opening a pipe would wait
                ++Skipped;
            else if (IsSame(state, destination))
                ++Same;
            else {
                TFile::Copy(source, destination);
                ++Copied;
            }
        });
    }

    /// A copy has the time of its source.
    static bool IsSame(const TFile::TState& source, const std::string& path) {
        if (!Exists(path))
            return false;
        const TFile::TState state(path);
        return state.GetSize() == source.GetSize() && state.GetLastModificationTime() == source.GetLastModificationTime();
    }
};

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: sync_tree SOURCE DESTINATION" << std::endl;
        return 2;
    }
    TSync sync;
    sync.Directory(arguments[1], arguments[2]);
    std::cout << sync.Copied << " copied, " << sync.Same << " are the same, " << sync.Skipped << " skipped" << std::endl;
    for (const std::string& failure : sync.Failures)
        std::cout << failure << std::endl;
    return sync.Failures.empty() ? 0 : 1;
}
