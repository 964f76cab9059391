#include <kest/net/address.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/system_text.h>
#include <kest/net/lookup.h>
#include <kest/threads/guard.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

namespace Kest::_Gadgets {

template class TSingleton<System::TSocket::TMutex>;

} // namespace Kest::_Gadgets

namespace Kest::System {

using namespace Interface::_Socket;

namespace {

/// A fully qualified name has 255 characters at most; with a colon, a port of five digits and one to spare, 262.
constexpr std::size_t LongestInetText = 262;

/// Bytes of a host's name that Get takes, without the terminating zero.
constexpr std::size_t LongestHostName = 255;

/// Where the path of an "fs" address starts: after the family.
constexpr socklen_t PathOffset = sizeof(sa_family_t);

using TFamilyTable = std::map<std::string, int>;

TFamilyTable MakeFamilyTable() {
    return {{"inet", AF_INET}, {"ipx", AF_IPX}, {"fs", AF_UNIX}, {"", AF_UNSPEC}};
}

int FamilyIn(const TFamilyTable& table, const std::string& name) {
    const auto found = table.find(name);
    if (found == table.end())
        _Throw<EUnsupportedDomain>(name);
    return found->second;
}

/// Whether a zero byte makes @p text no name of a host. The system would read only the part before that byte.
bool HasZeroByte(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

KEST_LEFT_BY_CANCELLATION in_addr ResolveHost(const std::string& host, const std::string& address) {
    hostent entry{};
    hostent* found = nullptr;
    if (!HasZeroByte(host)) {
        char work[1024]; // no second try with a larger one: a name with more addresses than fit counts as not resolved
        int error = 0;
        _LookUp([&] { return ::gethostbyname2_r(host.c_str(), AF_INET, &entry, work, sizeof work, &found, &error); });
        if (found != nullptr && found->h_addr_list[0] != nullptr) {
            in_addr result{};
            std::memcpy(&result, found->h_addr_list[0], std::min(sizeof result, static_cast<std::size_t>(found->h_length)));
            return result;
        }
    }
    _Throw<EBadAddress>("host not resolved: ", address);
}

in_addr ParseHost(const std::string& host) {
    in_addr result{};
    if (HasZeroByte(host) || ::inet_pton(AF_INET, host.c_str(), &result) <= 0)
        throw EBadAddress();
    return result;
}

std::string NameOf(in_addr address) {
    const _TScopedEntry entry(_Gadgets::TSingleton<TSocket::TMutex>::GetObject());
    const char* name = ip2name(address);
    if (name == nullptr)
        throw EBadAddress();
    return {name, ::strnlen(name, LongestHostName)};
}

std::string NumberOf(in_addr address) {
    char text[256];
    if (::inet_ntop(AF_INET, &address, text, sizeof text) == nullptr)
        throw EBadAddress();
    return text;
}

} // namespace

int TSocket::MapDomain(const std::string& name) {
    static const TFamilyTable Table = MakeFamilyTable();
    return FamilyIn(Table, name);
}

int TSocket::TAddress::MapDomain(const std::string& name) {
    static const TFamilyTable Table = MakeFamilyTable();
    return FamilyIn(Table, name);
}

TSocket::TMutex::TMutex() : System::TMutex(false) {}

TSocket::TMutex::~TMutex() = default;

TSocket::TAddress::TAddress(const std::string& domain) : Domain(MapDomain(domain)), Data(nullptr), Length(0) {
    Adopt(std::unique_ptr<char[]>(new char[sizeof(sockaddr_in)]()), sizeof(sockaddr_in));
}

TSocket::TAddress::TAddress(const std::string& domain, const std::string& address, bool resolve)
    : Domain(MapDomain(domain)), Data(nullptr), Length(0) {
    if (Domain == AF_UNIX)
        SetPath(address);
    else if (Domain == AF_INET)
        SetHostAndPort(domain, address, resolve);
    else
        _Throw<EUnsupportedDomain>("address error");
}

TSocket::TAddress::TAddress(const TAddress& other)
    : Interface::TSocket<TSocket>::TAddress(other), Domain(other.Domain), Data(new char[other.Length]), Length(other.Length) {
    std::copy_n(other.Data, Length, Data);
}

TSocket::TAddress& TSocket::TAddress::operator=(const TAddress& other) {
    if (this != &other) {
        std::unique_ptr<char[]> bytes(new char[other.Length]);
        std::copy_n(other.Data, other.Length, bytes.get());
        Adopt(std::move(bytes), other.Length);
        Domain = other.Domain;
    }
    return *this;
}

TSocket::TAddress::~TAddress() {
    delete[] Data;
}

/// Makes @p bytes the address's own in place of those it has.
void TSocket::TAddress::Adopt(std::unique_ptr<char[]> bytes, socklen_t length) noexcept {
    delete[] Data;
    Data = bytes.release();
    Length = length;
}

void TSocket::TAddress::SetPath(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    const sa_family_t family = AF_UNIX;
    const std::size_t length = PathOffset + systemPath.size() + 1;
    std::unique_ptr<char[]> bytes(new char[length]);
    std::memcpy(bytes.get(), &family, sizeof family);
    std::memcpy(bytes.get() + PathOffset, systemPath.c_str(), systemPath.size() + 1);
    Adopt(std::move(bytes), static_cast<socklen_t>(length));
}

void TSocket::TAddress::SetHostAndPort(const std::string& domain, const std::string& address, bool resolve) {
    if (address.size() > LongestInetText)
        _Throw<EBadAddress>("inet address too long");
    const std::size_t colon = address.find(':');
    if (colon == std::string::npos || colon + 1 == address.size())
        _Throw<EBadAddress>("bad 'address:port' inet format: Domain: '", domain, "': ", address);
    const std::string host = address.substr(0, colon);
    const long port = std::strtol(address.c_str() + colon + 1, nullptr, 10);

    sockaddr_in bytes{};
    bytes.sin_family = AF_INET;
    bytes.sin_port = htons(static_cast<std::uint16_t>(port));
    bytes.sin_addr = resolve ? ResolveHost(host, address) : ParseHost(host);

    std::unique_ptr<char[]> own(new char[sizeof bytes]);
    std::memcpy(own.get(), &bytes, sizeof bytes);
    Adopt(std::move(own), sizeof bytes);
}

std::string TSocket::TAddress::Get(bool resolve) const {
    if (Domain == AF_UNIX)
        return GetPath();
    if (Domain == AF_INET)
        return GetHostAndPort(resolve);
    _Throw<EUnsupportedDomain>("address error");
}

/// The address of a peer without a name has no bytes after the family. The address with the longest path has no zero byte at its end.
std::string TSocket::TAddress::GetPath() const {
    if (Length <= PathOffset)
        return {};
    const char* path = Data + PathOffset;
    return SystemToUTF8({path, ::strnlen(path, Length - PathOffset)});
}

std::string TSocket::TAddress::GetHostAndPort(bool resolve) const {
    sockaddr_in bytes{};
    std::memcpy(&bytes, Data, std::min<std::size_t>(sizeof bytes, Length));
    const std::string host = resolve ? NameOf(bytes.sin_addr) : NumberOf(bytes.sin_addr);
    return host + ':' + std::to_string(static_cast<int>(ntohs(bytes.sin_port)));
}

KEST_LEFT_BY_CANCELLATION const char* ip2name(in_addr address) {
    const in_addr_t number = ::inet_addr(::inet_ntoa(address));
    if (number == INADDR_NONE)
        return nullptr;
    const hostent* entry = _LookUp([&] { return ::gethostbyaddr(&number, sizeof number, AF_INET); });
    if (entry == nullptr || entry->h_addr_list[0] == nullptr)
        return nullptr;
    return entry->h_name;
}

} // namespace Kest::System
