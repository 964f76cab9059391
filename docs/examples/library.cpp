#include <kest/process/dll.h>

#include <iostream>

int main() {
    Kest::System::TDLL math("libm.so.6"); // unloaded at the end of the scope
    const auto squareRoot = reinterpret_cast<double (*)(double)>(math.GetSymbolAddress("sqrt"));
    if (squareRoot != nullptr)
        std::cout << squareRoot(1764.0) << '\n';
    std::cout << (math.GetSymbolAddress("no such function") == nullptr ? "not found" : "found") << '\n';
}
