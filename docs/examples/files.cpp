#include <kest/filesystem/file.h>
#include <kest/filesystem/file_state.h>

#include <fstream>
#include <iostream>

using Kest::System::TFile;

int main() {
    std::ofstream("letter.txt") << "Dear reader";

    TFile::Copy("letter.txt", "copy.txt");      // its content and its modification time
    TFile::Rename("copy.txt", "letter.backup"); // an older backup is replaced in one step

    const TFile::TState letter("letter.txt");
    const TFile::TState backup("letter.backup");
    std::cout << backup.GetSize() << " bytes, "
              << (backup.GetLastModificationTime() == letter.GetLastModificationTime() ? "as old" : "younger") << '\n';

    TFile::Remove("letter.backup");
    TFile::Remove("letter.txt");
}
