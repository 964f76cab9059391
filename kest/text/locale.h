#ifndef KEST_TEXT_LOCALE_H
#define KEST_TEXT_LOCALE_H

#include <kest/export.h>
#include <kest/foundation/singleton.h>

#include <string>

/// @file
/// The user's language, country and text encoding; and conversion to and from named encodings, which this platform does not offer.
///
/// Waits: for the first query of another thread only. No operation is a cancellation point.
/// Threads: any thread may call any operation. While the first of the three queries runs, no other thread changes the environment.

namespace Kest::System {

/// What the locale environment says, read once, by the constructor. GetDefaultLanguage(), GetDefaultCountry() and GetSystemEncoding() use
/// one object of this class, which the first of these calls makes. They do not see later changes of the environment.
///
/// The name of the locale is the value of LANG, or that of LC_ALL when LANG is missing or empty. The name consists of the language, "_",
/// the country, "." and the encoding. "_" and the country may be absent. If the name has another form, or if the platform cannot convert to
/// the encoding, the encoding is "UTF-8", and language and country are empty. This platform converts to no encoding, so this always
/// happens.
class KEST_EXPORT _TSystemLocaleDetector {
public:
    /// Reads the environment and takes the name of the locale apart. If memory runs out while the name is taken apart, the encoding is
    /// "UTF-8", and language and country are empty.
    /// @throw std::bad_alloc  there is no memory for a copy of the environment's value.
    /// Requires: no other thread changes the environment meanwhile.
    _TSystemLocaleDetector();

    /// Changes every byte from 'a' to 'z' into its capital, and no other byte, whatever the program's locale is.
    static void UpperCase(std::string& text);

    std::string Encoding; ///< in capitals
    std::string Language; ///< in capitals, empty when unknown
    std::string Country;  ///< in capitals, empty when unknown

private:
    KEST_HIDDEN bool Detect(const std::string& name);
};

/// The user's language, in capitals. Empty when unknown, and so always on this platform.
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetDefaultLanguage();

/// The user's country, in capitals. Empty when unknown, and so always on this platform.
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetDefaultCountry();

/// The encoding of the system's texts: on this platform always "UTF-8".
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetSystemEncoding();

/// Would convert @p text from UTF-8 to @p encoding. This platform does not offer it.
/// @throw EException  "UTF8ToEncoding not implemented", whatever the arguments.
KEST_EXPORT std::string UTF8ToEncoding(const std::string& encoding, const std::string& text);

/// Would convert @p text from @p encoding to UTF-8. This platform does not offer it.
/// @throw EException  "EncodingToUTF8 not implemented", whatever the arguments.
KEST_EXPORT std::string EncodingToUTF8(const std::string& encoding, const std::string& text);

/// The class of _SystemLocaleDetector.
class KEST_EXPORT _TSystemLocaleDetectorPlace {};

/// An object without content, for programs that link against the name. Nothing reads it.
extern KEST_EXPORT _TSystemLocaleDetectorPlace _SystemLocaleDetector;

} // namespace Kest::System

namespace Kest::_Gadgets {

extern template class TSingleton<System::_TSystemLocaleDetector>;

} // namespace Kest::_Gadgets

#endif
