#include <kest/text/locale.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/unwinding.h>

#include <cstdlib>
#include <cxxabi.h>

namespace Kest::_Gadgets {

template class TSingleton<System::_TSystemLocaleDetector>;

} // namespace Kest::_Gadgets

namespace Kest::System {

namespace {

std::string EnvironmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

const _TSystemLocaleDetector& Detector() {
    return _Gadgets::TSingleton<_TSystemLocaleDetector>::GetObject();
}

} // namespace

_TSystemLocaleDetectorPlace _SystemLocaleDetector;

KEST_CATCHES_CANCELLATION _TSystemLocaleDetector::_TSystemLocaleDetector() {
    std::string name = EnvironmentValue("LANG");
    if (name.empty())
        name = EnvironmentValue("LC_ALL");
    try {
        Detect(name);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        Encoding = "UTF-8";
        Language.clear();
        Country.clear();
    }
}

/// Takes a locale's name apart. Throws whatever is amiss with it.
void _TSystemLocaleDetector::Detect(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size())
        _Throw("the locale names no encoding");
    const std::string place = name.substr(0, dot);
    const std::size_t separator = place.find('_');
    Language = place.substr(0, separator);
    if (separator != std::string::npos)
        Country = place.substr(separator + 1);
    Encoding = name.substr(dot + 1);
    (void)UTF8ToEncoding(Encoding, "a");
    UpperCase(Encoding);
    UpperCase(Language);
    UpperCase(Country);
}

void _TSystemLocaleDetector::UpperCase(std::string& text) {
    for (char& character : text)
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - 0x20);
}

std::string GetDefaultLanguage() {
    return Detector().Language;
}

std::string GetDefaultCountry() {
    return Detector().Country;
}

std::string GetSystemEncoding() {
    return Detector().Encoding;
}

std::string UTF8ToEncoding(const std::string&, const std::string&) {
    _Throw("UTF8ToEncoding not implemented");
}

std::string EncodingToUTF8(const std::string&, const std::string&) {
    _Throw("EncodingToUTF8 not implemented");
}

} // namespace Kest::System
