#include "SameHost.h"

#include <algorithm>

#include "GroundKit/OS/Socket/OS_Socket.h"

namespace {
const char NAME_PREFIX[] = "apartment:tcp://";
// Interfaces a host is expected to have at most; more are listed again
// with room for all of them.
const int USUAL_ADDRESSES = 16;

std::string textOf(uint32_t address) {
    char text[16];
    OS::Socket::addressToText(address, text, sizeof text);
    return text;
}

std::vector<uint32_t> interfaceAddresses() {
    std::vector<uint32_t> addresses(USUAL_ADDRESSES);
    int count = OS::Socket::hostAddresses(addresses.data(), static_cast<int>(addresses.size()));
    if (count > static_cast<int>(addresses.size())) {
        addresses.resize(static_cast<size_t>(count));
        count = OS::Socket::hostAddresses(addresses.data(), count);
    }
    addresses.resize(count < 0 ? 0 : std::min(static_cast<size_t>(count), addresses.size()));
    return addresses;
}
}  // namespace

const char* const CSameHost::VARIABLE = "APARTMENT_SAME_HOST";

std::string CSameHost::nameOf(const std::string& strIp, unsigned short uiPort) {
    // In its dotted form, so that a URL written "127.1" finds the listener
    // of "127.0.0.1".
    const uint32_t address = OS::Socket::addressFromText(strIp.c_str());
    const std::string ip = address == INADDR_NONE ? strIp : textOf(address);
    return NAME_PREFIX + ip + ":" + std::to_string(uiPort);
}

bool CSameHost::isHostAddress(const std::string& strIp) {
    const uint32_t address = OS::Socket::addressFromText(strIp.c_str());
    if (address == INADDR_NONE || address == INADDR_ANY) return false;
    if ((ntohl(address) >> 24) == 127) return true;
    const std::vector<uint32_t> own = interfaceAddresses();
    return std::find(own.begin(), own.end(), address) != own.end();
}

std::vector<std::string> CSameHost::namedAddresses(const std::string& strIp) {
    const uint32_t address = OS::Socket::addressFromText(strIp.c_str());
    if (address != INADDR_ANY && address != INADDR_NONE) return {strIp};
    std::vector<std::string> names{"127.0.0.1"};
    for (uint32_t own : interfaceAddresses()) {
        const std::string text = textOf(own);
        if (std::find(names.begin(), names.end(), text) == names.end()) names.push_back(text);
    }
    return names;
}

std::string CSameHost::sourceAddressFor(const std::string& strIp) {
    uint32_t source = 0;
    if (OS::Socket::sourceAddress(OS::Socket::addressFromText(strIp.c_str()), &source) != 0)
        return strIp;
    return textOf(source);
}
