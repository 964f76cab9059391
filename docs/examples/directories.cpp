#include <kest/filesystem/directory.h>

#include <fstream>
#include <iostream>
#include <set>

using Kest::System::GetFileNameMatch;
using Kest::System::TDirectory;
using Kest::System::TFile;

int main() {
    TDirectory::Create("box");
    for (const char* name : {"box/one.txt", "box/two.txt", "box/three.bin"})
        std::ofstream(name) << name;

    std::set<std::string> names; // the system delivers entries in an order of its own, "." and ".." among them
    TDirectory box("box");
    try {
        while (true)
            names.insert(box.Read().GetName());
    } catch (const TDirectory::EEnd&) {
    }
    for (const std::string& name : names)
        if (GetFileNameMatch(name, "*.txt"))
            std::cout << name << '\n';

    for (const char* name : {"box/one.txt", "box/two.txt", "box/three.bin"})
        TFile::Remove(name);
    TDirectory::Remove("box");
}
