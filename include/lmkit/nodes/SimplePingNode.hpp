#pragma once

#include <cstdint>
#include <string>

namespace lmkit {

/// The UDP echo endpoint a SimplePinger measures. A plain value: a copy is a new node with the
/// same address and port.
struct SimplePingNode {
    /// Host name or IP address literal of the echo endpoint.
    std::string address;
    /// UDP port; only its low 16 bits are used when sending.
    std::int64_t port = 0;

    SimplePingNode() = default;
    SimplePingNode(std::string address, std::int64_t port)
        : address(std::move(address)), port(port) {}

    bool operator==(const SimplePingNode&) const = default;
};

}  // namespace lmkit
