// UTF-8 to UCS-2 and back. The limit is what every conversion needs at least: a new string, filled by a plain copy of a number of bytes
// between the number that is read and the number that is written.
#include <benchmarks/text_codecs.h>
#include <benchmarks/text_samples.h>
#include <benchmarks/topic.h>
#include <kest/text/utf8.h>

#include <clocale>
#include <codecvt>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <iconv.h>

#ifdef KEST_BENCHMARK_BOOST
#include <boost/locale/encoding_utf.hpp>
#endif
#ifdef KEST_BENCHMARK_GLIB
#include <glib.h>
#endif
#ifdef KEST_BENCHMARK_ICU
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#endif
#ifdef KEST_BENCHMARK_POCO
#include <Poco/UnicodeConverter.h>
#endif

namespace Kest::Benchmark {

namespace {

// Each way of converting has a name and two operations. They return what a user would get.

struct TKest {
    static constexpr const char* Name = "kest";
    static std::wstring Decode(const std::string& text) { return System::UTF8ToUCS(text); }
    static std::string Encode(const std::wstring& text) { return System::UCSToUTF8(text); }
};

/// The rules, written down plainly: counts the characters, then converts each.
struct TLoop {
    static constexpr const char* Name = "loop";

    static std::wstring Decode(const std::string& text) {
        std::size_t characters = 0;
        for (const char each : text)
            characters += (each & 0xC0) != 0x80 ? 1 : 0;
        std::wstring result(characters, 0);
        std::size_t count = 0;
        const auto byte = [&](std::size_t place) -> unsigned { return static_cast<unsigned char>(text[place]); };
        for (std::size_t index = 0; index < text.size() && count < characters;) {
            const unsigned lead = byte(index);
            const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : 3;
            if (index + length > text.size())
                break;
            unsigned value = lead;
            if (length == 2)
                value = (lead & 0x1FU) << 6 | (byte(index + 1) & 0x3FU);
            else if (length == 3)
                value = (lead & 0x0FU) << 12 | (byte(index + 1) & 0x3FU) << 6 | (byte(index + 2) & 0x3FU);
            result[count++] = static_cast<wchar_t>(value);
            index += length;
        }
        return result;
    }

    static std::string Encode(const std::wstring& text) {
        std::size_t bytes = 0;
        for (const wchar_t unit : text)
            bytes += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        std::string result(bytes, 0);
        std::size_t count = 0;
        for (const wchar_t each : text) {
            // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
            const auto unit = static_cast<std::uint32_t>(each);
            if (unit < 0x80) {
                result[count++] = static_cast<char>(unit);
            } else if (unit < 0x800) {
                result[count++] = static_cast<char>(0xC0 | unit >> 6);
                result[count++] = static_cast<char>(0x80 | (unit & 0x3F));
            } else {
                result[count++] = static_cast<char>(0xE0 | unit >> 12);
                result[count++] = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
                result[count++] = static_cast<char>(0x80 | (unit & 0x3F));
            }
        }
        return result;
    }
};

struct TIconv {
    static constexpr const char* Name = "iconv";

    static std::wstring Decode(const std::string& text) {
        static iconv_t converter = ::iconv_open("WCHAR_T", "UTF-8");
        std::wstring result(text.size(), 0); // as many characters as there are bytes, at most
        result.resize(Convert(converter, text.data(), text.size(), result.data(), result.size() * sizeof(wchar_t)) / sizeof(wchar_t));
        return result;
    }

    static std::string Encode(const std::wstring& text) {
        static iconv_t converter = ::iconv_open("UTF-8", "WCHAR_T");
        std::string result(3 * text.size(), 0);
        result.resize(Convert(converter, text.data(), text.size() * sizeof(wchar_t), result.data(), result.size()));
        return result;
    }

private:
    /// Returns the number of bytes written.
    static std::size_t Convert(iconv_t converter, const void* text, std::size_t length, void* out, std::size_t room) {
        // iconv reads what it is given, though it does not say so: NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
        auto* source = static_cast<char*>(const_cast<void*>(text));
        auto* place = static_cast<char*>(out);
        std::size_t rest = room;
        if (::iconv(converter, &source, &length, &place, &rest) == static_cast<std::size_t>(-1))
            throw std::runtime_error("iconv failed");
        return room - rest;
    }
};

/// The C library, in the locale that RegisterTopic() sets.
struct TLibc {
    static constexpr const char* Name = "libc";

    static std::wstring Decode(const std::string& text) {
        std::wstring result(text.size(), 0);
        const char* source = text.c_str();
        std::mbstate_t state{};
        result.resize(std::mbsrtowcs(result.data(), &source, result.size(), &state));
        return result;
    }

    static std::string Encode(const std::wstring& text) {
        std::string result(3 * text.size(), 0);
        const wchar_t* source = text.c_str();
        std::mbstate_t state{};
        result.resize(std::wcsrtombs(result.data(), &source, result.size(), &state));
        return result;
    }
};

// The standard deprecates it and has nothing in its place, so programs use it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
struct TStandard {
    static constexpr const char* Name = "std";
    using TConvert = std::wstring_convert<std::codecvt_utf8<wchar_t>>;
    static std::wstring Decode(const std::string& text) { return TConvert().from_bytes(text); }
    static std::string Encode(const std::wstring& text) { return TConvert().to_bytes(text); }
};
#pragma GCC diagnostic pop

#ifdef KEST_BENCHMARK_BOOST
struct TBoost {
    static constexpr const char* Name = "boost";
    static std::wstring Decode(const std::string& text) { return boost::locale::conv::utf_to_utf<wchar_t>(text); }
    static std::string Encode(const std::wstring& text) { return boost::locale::conv::utf_to_utf<char>(text); }
};
#endif

#ifdef KEST_BENCHMARK_GLIB
/// This peer allocates its results, which are not copied again here.
struct TGlib {
    static constexpr const char* Name = "glib";
    struct TFree {
        void operator()(void* memory) const { ::g_free(memory); }
    };

    static std::unique_ptr<gunichar, TFree> Decode(const std::string& text) {
        return std::unique_ptr<gunichar, TFree>(::g_utf8_to_ucs4_fast(text.data(), static_cast<glong>(text.size()), nullptr));
    }
    static std::unique_ptr<gchar, TFree> Encode(const std::wstring& text) {
        const auto* const units = reinterpret_cast<const gunichar*>(text.data());
        return std::unique_ptr<gchar, TFree>(::g_ucs4_to_utf8(units, static_cast<glong>(text.size()), nullptr, nullptr, nullptr));
    }
};
#endif

#ifdef KEST_BENCHMARK_ICU
struct TIcu {
    static constexpr const char* Name = "icu";

    static std::wstring Decode(const std::string& text) {
        const auto length = static_cast<std::int32_t>(text.size());
        std::wstring result(text.size(), 0);
        std::int32_t count = 0;
        UErrorCode error = U_ZERO_ERROR;
        const icu::UnicodeString units = icu::UnicodeString::fromUTF8({text.data(), length});
        (void)::u_strToWCS(result.data(), length, &count, units.getBuffer(), units.length(), &error);
        result.resize(static_cast<std::size_t>(count));
        return result;
    }

    static std::string Encode(const std::wstring& text) {
        std::string result;
        const auto* const units = reinterpret_cast<const UChar32*>(text.data());
        return icu::UnicodeString::fromUTF32(units, static_cast<std::int32_t>(text.size())).toUTF8String(result);
    }
};
#endif

#ifdef KEST_BENCHMARK_POCO
struct TPoco {
    static constexpr const char* Name = "poco";

    static Poco::UTF32String Decode(const std::string& text) {
        Poco::UTF32String result;
        Poco::UnicodeConverter::convert(text, result);
        return result;
    }

    static std::string Encode(const std::wstring& text) {
        std::string result;
        const auto* const units = reinterpret_cast<const Poco::UTF32Char*>(text.data());
        Poco::UnicodeConverter::convert(units, text.size(), result);
        return result;
    }
};
#endif

/// A text in both encodings, and the name of its measurements without who.
struct TText {
    explicit TText(std::string narrow) : Narrow(std::move(narrow)), Wide(TLoop::Decode(Narrow)) {}
    std::size_t CopySize() const { return (Narrow.size() + Wide.size() * sizeof(wchar_t)) / 2; }
    const std::string Narrow;
    const std::wstring Wide;
};

using TShared = std::shared_ptr<const TText>;

template <class TCall>
void RegisterCall(const std::string& name, std::int64_t size, const TCall& call) {
    auto* const measurement = Register(name, size, [call](benchmark::State& state, std::int64_t) {
        for (auto _ : state) {
            auto result = call();
            benchmark::DoNotOptimize(result);
            benchmark::ClobberMemory();
        }
    });
    if (size > 1 << 20)
        measurement->Iterations(1)->Repetitions(5); // some peers take seconds for it
}

template <class TWay>
void RegisterWay(const std::string& script, std::int64_t size, const TShared& text) {
    RegisterCall("decode/" + script + '/' + TWay::Name, size, [text] { return TWay::Decode(text->Narrow); });
    RegisterCall("encode/" + script + '/' + TWay::Name, size, [text] { return TWay::Encode(text->Wide); });
}

/// Kest as on processors that have no more than each codec needs, without the call into the library.
void RegisterCodecs(const std::string& script, std::int64_t size, const TShared& text) {
    const System::_TUTF8Codec* codecs[4];
    const std::size_t count = System::_GetUTF8Codecs(codecs);
    for (std::size_t index = 0; index < count; ++index) {
        const System::_TUTF8Codec& codec = *codecs[index];
        const std::string name = script + "/kest-" + codec.Name;
        RegisterCall("decode/" + name, size, [text, &codec] { return DecodeBy(codec, text->Narrow); });
        RegisterCall("encode/" + name, size, [text, &codec] { return EncodeBy(codec, text->Wide); });
    }
}

void RegisterText(const TScript& script, std::int64_t size) {
    const auto text = std::make_shared<const TText>(MakeText(script, static_cast<std::size_t>(size)));
    // One source for both directions, long enough for either.
    const auto source = std::make_shared<const std::string>(text->CopySize(), 'x');
    for (const char* const direction : {"decode/", "encode/"})
        RegisterCall(std::string(direction) + script.Name + "/limit", size, [source] { return std::string(*source); });
    RegisterWay<TKest>(script.Name, size, text);
    RegisterCodecs(script.Name, size, text);
    RegisterWay<TLoop>(script.Name, size, text);
    RegisterWay<TIconv>(script.Name, size, text);
    RegisterWay<TLibc>(script.Name, size, text);
    if (size <= 1 << 20 || sizeof(void*) > 4) // with the largest text its strings would not fit 32 bits
        RegisterWay<TStandard>(script.Name, size, text);
#ifdef KEST_BENCHMARK_BOOST
    RegisterWay<TBoost>(script.Name, size, text);
#endif
#ifdef KEST_BENCHMARK_GLIB
    RegisterWay<TGlib>(script.Name, size, text);
#endif
#ifdef KEST_BENCHMARK_ICU
    RegisterWay<TIcu>(script.Name, size, text);
#endif
#ifdef KEST_BENCHMARK_POCO
    RegisterWay<TPoco>(script.Name, size, text);
#endif
}

} // namespace

void RegisterTopic() {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) // for the functions of the C library
        throw std::runtime_error("no locale C.UTF-8");
    for (const TScript& script : Scripts) {
        for (const std::int64_t size : {16, 64, 256, 4096, 1 << 16, 1 << 20})
            RegisterText(script, size);
        if (IsWholeRun())
            RegisterText(script, 1 << 26);
    }
}

} // namespace Kest::Benchmark
