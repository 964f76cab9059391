// Saves a file so that nobody ever sees half of it, and moves it away without losing it.
#include <kest/kest.h>

#include <fstream>
#include <iostream>
#include <string>

using namespace Kest::System;

namespace {

/// Writes a new file beside the old one and puts it in its place in one step: whoever opens @p path gets the old content or the new, also
/// if the program ends halfway.
void Save(const std::string& path, const std::string& content) {
    const std::string fresh = path + ".new"; // in the same folder, so on the same file system
    std::ofstream file(UTF8ToSystem(fresh), std::ios::binary | std::ios::trunc);
    file << content;
    file.close(); // a full disk may be told only here
    if (!file) {
        (void)std::remove(UTF8ToSystem(fresh).c_str());
        throw Kest::EException("cannot write " + fresh);
    }
    TFile::Rename(fresh, path);
}

std::string Content(const std::string& path) {
    std::ifstream file(UTF8ToSystem(path));
    std::string line;
    std::getline(file, line);
    return line;
}

/// Tells what became of a move, which is never half of it.
void Move(const std::string& source, const std::string& destination) {
    try {
        TFile::Rename(source, destination); // over file systems Rename() copies and removes
        std::cout << source << " is now " << destination << std::endl;
    } catch (const Kest::EException& failure) {
        std::cout << failure.GetMessage() << std::endl;
    }
}

} // namespace

int main() try {
    Save("settings", "volume = 1");
    Save("settings", "volume = 2"); // replaces the old file
    std::cout << Content("settings") << std::endl;

    TDirectory::Create("archive");
    Move("settings", "no such folder/settings"); // the source stays
    Move("settings", "archive/settings");
    Move("settings", "archive/settings"); // there is no "settings" any more: the file in the archive stays
    std::cout << Content("archive/settings") << std::endl;

    TFile::Remove("archive/settings");
    TDirectory::Remove("archive");
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
}
