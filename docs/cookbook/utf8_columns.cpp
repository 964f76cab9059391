// Reads lines, tells which are no UTF-8, and shows the others in columns: text in, wide text between, text out.
#include <kest/kest.h>

#include <clocale>
#include <cwctype>
#include <iostream>
#include <sstream>
#include <string>

using namespace Kest::System;

namespace {

/// Whether @p text is UTF-8 of characters up to U+FFFF. The conversions never refuse: what is malformed, or lies beyond, becomes other
/// text on the way there and back. A zero byte ends the way back.
bool IsConvertible(const std::string& text) {
    return UCSToUTF8(UTF8ToUCS(text)) == text;
}

/// @p text in @p width columns: cut between characters, never within one, or filled with spaces.
std::string Column(const std::string& text, std::size_t width) {
    std::wstring wide = UTF8ToUCS(text); // one element for each character
    wide.resize(width, L' ');
    return UCSToUTF8(wide);
}

std::string Capitals(const std::string& text) {
    std::wstring wide = UTF8ToUCS(text);
    for (wchar_t& character : wide)
        character = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(character))); // by the program's locale
    return UCSToUTF8(wide);
}

} // namespace

int main() {
    (void)std::setlocale(LC_ALL, "C.UTF-8"); // without it only A to Z have capitals
    std::istringstream input("grüße\n"
                             "Łódź\n"
                             "ελληνικά\n"
                             "a\xFFz\n"           // no UTF-8
                             "\xF0\x9F\x98\x80\n" // U+1F600, beyond U+FFFF
                             "Straßenbahnhaltestelle\n");
    for (std::string line; std::getline(input, line);) {
        if (!IsConvertible(line)) {
            std::cout << '|' << "(left as it is)" << '|' << std::endl; // std::cout << UTF8ToSystem(line) would print it unchanged
            continue;
        }
        std::cout << '|' << UTF8ToSystem(Column(line, 12)) << '|' << UTF8ToSystem(Column(Capitals(line), 12)) << '|' << std::endl;
    }
}
