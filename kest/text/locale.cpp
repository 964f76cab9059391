#include <kest/text/locale.h>

#include <kest/foundation/failure.h>

#include <cstdlib>
#include <new>

namespace Kest::_Gadgets {

template class TSingleton<System::_TSystemLocaleDetector>;

} // namespace Kest::_Gadgets

namespace Kest::System {

namespace {

/// The value of the environment variable @p name. Empty when there is no such variable.
std::string EnvironmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

/// Whether this platform converts between UTF-8 and @p encoding. A platform that does implements UTF8ToEncoding and EncodingToUTF8 too.
bool CanConvert(const std::string& /*encoding*/) noexcept {
    return false;
}

const _TSystemLocaleDetector& Detector() {
    return _Gadgets::TSingleton<_TSystemLocaleDetector>::GetObject();
}

} // namespace

_TSystemLocaleDetectorPlace _SystemLocaleDetector;

_TSystemLocaleDetector::_TSystemLocaleDetector() {
    std::string name = EnvironmentValue("LANG");
    if (name.empty())
        name = EnvironmentValue("LC_ALL");
    bool isDetected = false;
    try {
        isDetected = Detect(name);
    } catch (const std::bad_alloc&) { // the defaults need no memory
    }
    if (!isDetected) {
        Encoding = "UTF-8";
        Language.clear();
        Country.clear();
    }
}

/// Takes the name of a locale apart. Returns false when the name has another form or when its encoding cannot be converted to. A result
/// says so and not an exception, since the message of an exception needs memory.
bool _TSystemLocaleDetector::Detect(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size())
        return false;
    const std::string place = name.substr(0, dot);
    const std::size_t separator = place.find('_');
    Language = place.substr(0, separator);
    if (separator != std::string::npos)
        Country = place.substr(separator + 1);
    Encoding = name.substr(dot + 1);
    if (!CanConvert(Encoding))
        return false;
    UpperCase(Encoding);
    UpperCase(Language);
    UpperCase(Country);
    return true;
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
