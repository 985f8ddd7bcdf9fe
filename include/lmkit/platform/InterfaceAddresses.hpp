#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lmkit {

/// One entry of the system's interface address list, copied out of getifaddrs so that callers
/// never touch the C list. Entries of families other than IPv4 and IPv6 keep their name and
/// flags but no address.
struct InterfaceAddress {
    std::string name;
    int family = 0;                 // AF_INET, AF_INET6 or another family
    unsigned flags = 0;             // IFF_* flags of the interface
    std::string address;            // presentation form (inet_ntop); empty when not formattable
    std::vector<uint8_t> sockaddr;  // the raw socket address, as the system handed it

    bool isUp() const;
};

/// Reads the interface address list in system order; nullopt when the list cannot be read.
std::optional<std::vector<InterfaceAddress>> interfaceAddresses();

/// The address `interfaceName` can be bound to: its first IPv4 address, else its first IPv6
/// address; nullopt when the interface has no address (or does not exist).
std::optional<InterfaceAddress> bindableAddressOfInterface(const std::string& interfaceName);

}  // namespace lmkit
