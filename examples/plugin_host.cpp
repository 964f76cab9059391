// Loads a library, calls one of its functions with a number and prints the result.
//
// Shows      TDLL: a library is loaded for as long as its object lives, and a missing symbol is a null pointer, no exception.
// Arguments  LIBRARY SYMBOL ARGUMENT. LIBRARY is a path, or a name that the system finds; ".so" may be left out. SYMBOL is a function
//            that takes and returns a double.
// Status     0; 1 the library cannot be loaded; 2 bad arguments; 3 it has no such function; 4 the result could not be written.

#include <kest/foundation/exception.h>
#include <kest/process/dll.h>

#include <cstdio>
#include <cstdlib>

using TFunction = double (*)(double);

namespace {

constexpr int ExitFine = 0;
constexpr int ExitNotLoaded = 1;
constexpr int ExitUsage = 2;
constexpr int ExitNoSymbol = 3;
constexpr int ExitUntold = 4;

} // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const double argument = argc == 4 ? std::strtod(argv[3], &end) : 0.0;
    if (argc != 4 || end == argv[3] || *end != 0) {
        std::fprintf(stderr,
                     "usage: %s LIBRARY SYMBOL ARGUMENT\n"
                     "Calls the function SYMBOL of LIBRARY, which takes and returns a double, with the number ARGUMENT.\n"
                     "LIBRARY is a path, or a name that the system finds; \".so\" may be left out.\n"
                     "Exit status: 0; 1 the library cannot be loaded; 2 bad arguments; 3 it has no such function;\n"
                     "             4 the result could not be written.\n",
                     argv[0]);
        return ExitUsage;
    }
    try {
        Kest::System::TDLL library(argv[1]);
        const auto function = reinterpret_cast<TFunction>(library.GetSymbolAddress(argv[2]));
        if (function == nullptr) {
            std::fprintf(stderr, "%s has no function %s\n", argv[1], argv[2]);
            return ExitNoSymbol;
        }
        std::printf("%s(%g) = %.15g\n", argv[2], argument, function(argument));
    } catch (const Kest::EException& failure) {
        std::fprintf(stderr, "%s\n", failure.GetMessage().c_str());
        return ExitNotLoaded;
    }
    if (std::fflush(stdout) != 0) {
        std::fputs("the result could not be written\n", stderr);
        return ExitUntold;
    }
    return ExitFine;
}
