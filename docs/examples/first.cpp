#include <kest/kest.h>

#include <iostream>

int main() {
    try {
        std::cout << "Kest " << KEST_VERSION_MAJOR << " at your service" << std::endl;
        const Kest::System::TFile::TState state("/");
        if (state.GetType() == Kest::System::TFile::Directory)
            std::cout << "the root is a directory" << std::endl;
    } catch (const Kest::EException& failure) { // no std::exception: it needs a handler of its own
        std::cerr << failure.GetMessage() << std::endl;
        return 1;
    } catch (const std::exception& failure) { // the standard library's, no memory for instance
        std::cerr << failure.what() << std::endl;
        return 1;
    }
}
