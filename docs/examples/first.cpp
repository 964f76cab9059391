#include <kest/kest.h>

#include <iostream>

int main() {
    std::cout << "Kest " << KEST_VERSION_MAJOR << " at your service" << std::endl;
    const Kest::System::TFile::TState state("/");
    if (state.GetType() == Kest::System::TFile::Directory)
        std::cout << "the root is a directory" << std::endl;
}
