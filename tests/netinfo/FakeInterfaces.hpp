#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "lmkit/platform/InterfaceAddresses.hpp"

namespace lmkit::testing {

/// An interface list entry as getifaddrs would give it.
inline InterfaceAddress fakeEntry(const std::string& name, const std::string& address,
                                  bool up = true) {
    InterfaceAddress entry;
    entry.name = name;
    entry.flags = up ? IFF_UP | IFF_RUNNING : 0;
    entry.address = address;
    if (address.find(':') == std::string::npos) {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        inet_pton(AF_INET, address.c_str(), &in.sin_addr);
        entry.family = AF_INET;
        const auto* raw = reinterpret_cast<const uint8_t*>(&in);
        entry.sockaddr.assign(raw, raw + sizeof in);
    } else {
        sockaddr_in6 in6{};
        in6.sin6_family = AF_INET6;
        in6.sin6_flowinfo = htonl(0x01020304);
        inet_pton(AF_INET6, address.c_str(), &in6.sin6_addr);
        entry.family = AF_INET6;
        const auto* raw = reinterpret_cast<const uint8_t*>(&in6);
        entry.sockaddr.assign(raw, raw + sizeof in6);
    }
    return entry;
}

/// A link-layer entry: a name and flags, no IP address.
inline InterfaceAddress fakeLinkEntry(const std::string& name) {
    InterfaceAddress entry;
    entry.name = name;
    entry.family = AF_PACKET;
    entry.flags = IFF_UP;
    return entry;
}

}  // namespace lmkit::testing
