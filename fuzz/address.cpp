// Compares the texts of addresses with a model, which tells whether a text is an address and what it means. An address that is accepted
// must come back from its own text.
#include "fuzz.h"

#include <kest/net/address.h>

#include <climits>
#include <optional>

using namespace Kest::Fuzz;
using namespace Kest::System;
using TAddress = TSocket::TAddress;

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Four decimal numbers up to 255 with dots between them, none with a zero in front.
bool IsHost(const std::string& text) {
    std::size_t at = 0;
    for (int part = 0; part != 4; ++part) {
        if (part != 0 && (at == text.size() || text[at++] != '.'))
            return false;
        const std::size_t begin = at;
        int value = 0;
        while (at < text.size() && IsDigit(text[at]) && value <= 255)
            value = value * 10 + (text[at++] - '0');
        if (at == begin || value > 255 || (text[begin] == '0' && at - begin > 1))
            return false;
    }
    return at == text.size();
}

/// The low 16 bits of the number that the text begins with. A number that is too large for a long counts as the nearest long.
unsigned int PortOf(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r')))
        ++at;
    const bool isNegative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+'))
        ++at;
    const unsigned long largest = isNegative ? 0UL - static_cast<unsigned long>(LONG_MIN) : static_cast<unsigned long>(LONG_MAX);
    unsigned long value = 0;
    for (; at < text.size() && IsDigit(text[at]); ++at) {
        const auto digit = static_cast<unsigned long>(text[at] - '0');
        value = value > (largest - digit) / 10 ? largest : value * 10 + digit;
    }
    return static_cast<unsigned int>((isNegative ? 0UL - value : value) & 0xFFFF);
}

/// What the library must answer: the text of the address, or the message of the refusal.
struct TExpected {
    std::optional<std::string> Text;
    std::string Message{};
};

TExpected ExpectedOf(const std::string& domain, const std::string& text) {
    if (domain == "fs")
        return {UpToZero(text)};
    if (domain != "inet")
        return {{}, "Kest: unsupported socket domain (address family): " + (domain.empty() || domain == "ipx" ? "address error" : domain)};
    const std::string refusal = "Kest: bad socket address";
    if (text.size() > 262)
        return {{}, refusal + ": inet address too long"};
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || colon == text.size() - 1)
        return {{}, refusal + ": bad 'address:port' inet format: Domain: 'inet': " + text};
    const std::string host = text.substr(0, colon);
    if (!IsHost(host))
        return {{}, refusal};
    return {host + ":" + std::to_string(PortOf(text.substr(colon + 1)))};
}

void CheckAccepted(const std::string& domain, const TAddress& address, const std::string& expected) {
    const std::string text = address.Get(false);
    RequireEqual(text, expected, "the text of an address");
    const TAddress again(domain, text, false);
    RequireEqual(again.Get(false), text, "it gives the same address");
    TAddress copy(address);
    RequireEqual(copy.Get(false), text, "a copy is the same");
    copy = TAddress("");
    copy = again;
    RequireEqual(copy.Get(false), text, "so is what it was assigned to");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto choice = input.ConsumeIntegralInRange<unsigned int>(0, 7);
    const std::string known[] = {"inet", "inet", "inet", "inet", "fs", "ipx", ""};
    const std::string domain = choice < 7 ? known[choice] : input.ConsumeRandomLengthString(8);
    const std::string text = input.ConsumeRemainingBytesAsString();
    const TExpected expected = ExpectedOf(domain, text);
    try {
        const TAddress address(domain, text, false);
        Require(expected.Text.has_value(), "what is no address is refused");
        CheckAccepted(domain, address, *expected.Text);
    } catch (const Interface::_Socket::EBadAddress& error) {
        RequireEqual(error.GetMessage(), expected.Message, "the message for a bad address");
    } catch (const Interface::_Socket::EUnsupportedDomain& error) {
        RequireEqual(error.GetMessage(), expected.Message, "the message for a bad family");
    }
    return 0;
}
