#include "lmkit/platform/InterfaceAddresses.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

namespace lmkit {

bool InterfaceAddress::isUp() const {
    return (flags & IFF_UP) != 0;
}

std::optional<std::vector<InterfaceAddress>> interfaceAddresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return std::nullopt;
    std::vector<InterfaceAddress> entries;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        InterfaceAddress item;
        if (entry->ifa_name != nullptr)
            item.name = entry->ifa_name;
        item.flags = entry->ifa_flags;
        if (entry->ifa_addr != nullptr) {
            item.family = entry->ifa_addr->sa_family;
            char text[INET6_ADDRSTRLEN] = {};
            const auto* raw = reinterpret_cast<const uint8_t*>(entry->ifa_addr);
            if (item.family == AF_INET) {
                const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
                item.sockaddr.assign(raw, raw + sizeof(sockaddr_in));
                if (inet_ntop(AF_INET, &in->sin_addr, text, sizeof text))
                    item.address = text;
            } else if (item.family == AF_INET6) {
                const auto* in6 = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
                item.sockaddr.assign(raw, raw + sizeof(sockaddr_in6));
                if (inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text))
                    item.address = text;
            }
        }
        entries.push_back(std::move(item));
    }
    freeifaddrs(list);
    return entries;
}

std::optional<InterfaceAddress> bindableAddressOfInterface(const std::string& interfaceName) {
    auto entries = interfaceAddresses();
    if (!entries)
        return std::nullopt;
    std::optional<InterfaceAddress> ipv6;
    for (auto& entry : *entries) {
        if (entry.name != interfaceName || entry.sockaddr.empty())
            continue;
        if (entry.family == AF_INET)
            return entry;
        if (entry.family == AF_INET6 && !ipv6)
            ipv6 = entry;
    }
    return ipv6;
}

}  // namespace lmkit
