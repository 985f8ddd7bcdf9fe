#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One relay (SOCKS) server the tunnel logs in to. A decoded relay without "tcpEncryptMethod"
/// uses "XOR"; an explicit value (null included) wins.
struct SocksInfo : Model<SocksInfo> {
    std::optional<std::string> ip;
    std::optional<Number> port;
    std::optional<Number> tlsPort;
    std::optional<Number> netaskPort;
    std::optional<std::string> username;
    std::optional<std::string> password;
    std::optional<std::string> sniIP;
    std::optional<Number> sniPort;
    std::optional<Number> sniCryptType;
    std::optional<std::string> token;
    std::optional<std::string> tcpEncryptKey;
    std::optional<std::string> tcpEncryptMethod;
    std::uint64_t retryTime = 0;
    std::uint64_t requestDualChannelType = 0;
    std::optional<Number> enableUDPDualChannelResult;
    std::optional<Number> tcpipOverUdpResult;
    std::optional<std::string> accIdentifier;
    std::optional<Number> delay;
    std::optional<Number> rearDelay;
    std::optional<Number> chartRearDelay;

    SocksInfo() = default;
    SocksInfo(std::optional<std::string> address, std::optional<Number> port)
        : ip(std::move(address)), port(std::move(port)) {}

    /// "ip:port" with the port's integer value; nil when ip is empty or port is nil.
    std::optional<std::string> identifier() const;

    static const std::vector<Property<SocksInfo>>& properties();
};

}  // namespace lmkit
