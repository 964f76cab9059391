#include <kest/kest.h>

int main() try {
    Kest::System::TDirectory directory("/");
    std::cout << "Kest " << Kest::GetVersion() << '\n';
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << '\n';
    return 1;
}
