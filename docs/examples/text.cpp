#include <kest/text/system_text.h>
#include <kest/text/utf8.h>

#include <iostream>

using namespace Kest::System;

int main() {
    const std::string text = "Grüße, €";
    const std::wstring wide = UTF8ToUCS(text); // one element for each character, up to U+FFFF
    std::cout << text.size() << " bytes, " << wide.size() << " characters\n";
    std::cout << (UCSToUTF8(wide) == text ? "unchanged" : "changed") << '\n';
    std::cout << UTF8ToSystem(text) << '\n'; // before text or a path goes to the system
}
