// The probe socket's receive path judges datagrams from anyone on the network: whatever the
// bytes and the source, the decision is consistent and a recorded delay is a real one.
//
// Input: byte 0 chooses the prefix, the family and whether the payload is a genuine probe; bytes
// 1-2 the source port; bytes 3-6 the receive time after the first probe (ms); bytes 7-10 the
// genuine probe's send time; byte 11 the length of the source host text that follows; the rest
// is the payload.
#include <sys/socket.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lmkit/nodes/ProbePacket.hpp"

namespace {

constexpr double kFirstPacketTimeStamp = 1'700'000'000'000.0;

std::uint32_t read32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

void check(bool condition) {
    if (!condition)
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using lmkit::probe::ReplyDecision;
    if (size < 12)
        return 0;
    static const std::string kPrefixes[] = {"", "LM", "QOS", "\xc3\xa9t\xc3\xa9"};
    const std::string& prefix = kPrefixes[bytes[0] & 3];
    const int family = (bytes[0] & 4) ? AF_INET6 : AF_INET;
    const bool genuine = (bytes[0] & 8) != 0;
    const long port = static_cast<long>(bytes[1] | bytes[2] << 8);
    const std::int64_t now = static_cast<std::int64_t>(kFirstPacketTimeStamp) + read32(bytes + 3);
    const std::int64_t sent = static_cast<std::int64_t>(kFirstPacketTimeStamp) + read32(bytes + 7);
    std::size_t hostLength = bytes[11];
    const std::uint8_t* rest = bytes + 12;
    std::size_t restSize = size - 12;
    if (hostLength > restSize)
        hostLength = restSize;
    std::string host(reinterpret_cast<const char*>(rest), hostLength);
    rest += hostLength;
    restSize -= hostLength;

    std::string probe;
    if (genuine) {
        probe = lmkit::probe::makeProbePayload(prefix, kFirstPacketTimeStamp, sent);
        rest = reinterpret_cast<const std::uint8_t*>(probe.data());
        restSize = probe.size();
    }
    auto decision = lmkit::probe::decideProbeReply(rest, restSize, prefix, kFirstPacketTimeStamp,
                                                   now, host, port, family);
    switch (decision.action) {
        case ReplyDecision::Action::Record: {
            check(decision.delay >= 0 && std::isfinite(decision.delay));
            check(!decision.host.empty() && decision.port == port && port != 0);
            check(decision.fromIPv6 == (family == AF_INET6));
            if (family == AF_INET)
                check(decision.host == host);
            if (prefix.empty())
                check(lmkit::probe::isAllDigits(decision.text));
            auto key = lmkit::probe::constructKeyWithHost(decision.host, decision.port);
            check(key == decision.host + ":" + std::to_string(port));
            if (genuine)
                check(decision.delay == static_cast<double>(now - sent));
            break;
        }
        case ReplyDecision::Action::InvalidPacket:
            check(prefix.empty() && !decision.text.empty());
            break;
        case ReplyDecision::Action::InvalidTimestamp:
            check(!decision.text.empty() && !genuine);
            break;
        case ReplyDecision::Action::Drop:
            // A genuine probe is dropped only for a missing source or a stamp from later.
            if (genuine)
                check(host.empty() || port == 0 || now < sent);
            break;
    }
    return 0;
}
