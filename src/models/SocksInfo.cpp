#include "lmkit/models/SocksInfo.hpp"

namespace lmkit {

const std::vector<Property<SocksInfo>>& SocksInfo::properties() {
    static const std::vector<Property<SocksInfo>> table{
        prop("ip", &SocksInfo::ip),
        prop("port", &SocksInfo::port),
        prop("tlsPort", &SocksInfo::tlsPort),
        prop("netaskPort", &SocksInfo::netaskPort),
        prop("username", &SocksInfo::username),
        prop("password", &SocksInfo::password),
        prop("sniIP", &SocksInfo::sniIP),
        prop("sniPort", &SocksInfo::sniPort),
        prop("sniCryptType", &SocksInfo::sniCryptType),
        prop("token", &SocksInfo::token),
        prop("tcpEncryptKey", &SocksInfo::tcpEncryptKey),
        prop("tcpEncryptMethod", &SocksInfo::tcpEncryptMethod).withDefault(std::string("XOR")),
        prop("retryTime", &SocksInfo::retryTime),
        prop("requestDualChannelType", &SocksInfo::requestDualChannelType),
        prop("enableUDPDualChannelResult", &SocksInfo::enableUDPDualChannelResult),
        prop("tcpipOverUdpResult", &SocksInfo::tcpipOverUdpResult),
        prop("accIdentifier", &SocksInfo::accIdentifier),
        prop("delay", &SocksInfo::delay),
        prop("rearDelay", &SocksInfo::rearDelay),
        prop("chartRearDelay", &SocksInfo::chartRearDelay),
    };
    return table;
}

std::optional<std::string> SocksInfo::identifier() const {
    if (!ip || ip->empty() || !port)
        return std::nullopt;
    return *ip + ":" + std::to_string(static_cast<int>(port->intValue()));
}

}  // namespace lmkit
