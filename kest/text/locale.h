#ifndef KEST_TEXT_LOCALE_H
#define KEST_TEXT_LOCALE_H

#include <kest/export.h>
#include <kest/foundation/singleton.h>

#include <string>

/// @file
/// The user's language, country and text encoding, and conversion to and from named encodings, which this platform does not offer. Any
/// thread may call anything.

namespace Kest::System {

/// What the locale environment says, found out once, by the constructor. The queries below use one object of this class, made at the
/// first of them: later changes of the environment are not seen.
///
/// The name of the locale is the value of LANG, or of LC_ALL where that gives nothing: language, "_", country, ".", encoding, of which
/// "_" and the country may be absent. If the platform cannot convert to that encoding, and on this platform therefore always, or if
/// anything else is amiss, the encoding is "UTF-8" and the others are empty.
class KEST_EXPORT _TSystemLocaleDetector {
public:
    /// Detects. Whatever is amiss gives the defaults, and so does memory that runs out while the name is taken apart.
    /// @throw std::bad_alloc  there is no memory for a copy of the environment's value.
    /// Requires: no other thread changes the environment meanwhile.
    _TSystemLocaleDetector();

    /// Changes every byte from 'a' to 'z' into its capital and no other byte, in any locale.
    static void UpperCase(std::string& text);

    std::string Encoding; ///< upper-case where detected
    std::string Language; ///< upper-case where detected, empty when unknown
    std::string Country;  ///< upper-case where detected, empty when unknown

private:
    KEST_HIDDEN bool Detect(const std::string& name);
};

/// The user's language, "" when unknown: on this platform always.
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetDefaultLanguage();

/// The user's country, "" when unknown: on this platform always.
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetDefaultCountry();

/// The encoding of the system's texts: on this platform always "UTF-8".
/// @throw std::bad_alloc  nothing is detected yet, and there is no memory for a copy of the environment's value.
KEST_EXPORT std::string GetSystemEncoding();

/// @throw EException  "UTF8ToEncoding not implemented", whatever the arguments.
KEST_EXPORT std::string UTF8ToEncoding(const std::string& encoding, const std::string& text);

/// @throw EException  "EncodingToUTF8 not implemented", whatever the arguments.
KEST_EXPORT std::string EncodingToUTF8(const std::string& encoding, const std::string& text);

class KEST_EXPORT _TSystemLocaleDetectorPlace {};

/// An object without content, for programs that link against the name. Nothing reads it.
extern KEST_EXPORT _TSystemLocaleDetectorPlace _SystemLocaleDetector;

} // namespace Kest::System

namespace Kest::_Gadgets {

extern template class TSingleton<System::_TSystemLocaleDetector>;

} // namespace Kest::_Gadgets

#endif
