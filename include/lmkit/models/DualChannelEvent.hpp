#pragma once

#include <cstdint>

namespace lmkit {

/// Counters of the dual-channel (Wi-Fi and cellular at once) path switches and packets.
struct DualChannelEvent {
    std::uint32_t TCPIPChannelSwitchTimes = 0;
    std::uint32_t proxyTCPIPPacketCount = 0;
    std::uint32_t UDPChannelSwitchTimes = 0;
    std::uint32_t proxyUDPPacketCount = 0;
};

}  // namespace lmkit
