#include <kest/filesystem/file.h>
#include <kest/process/process.h>

#include <iostream>

using namespace Kest::System;

int main(int argc, char** argv) {
    const std::string program = GetFullPathName(GetApplicationFileName(argc, argv));
    std::cout << program.substr(program.rfind('/') + 1) << '\n';
    SetProcessPriority(-50); // from -100 to 100; lowering it is always allowed
    std::cout << "priority " << GetProcessPriority() << '\n';
}
