// Untrusted proxy replies: unwrapping any bytes must neither crash nor read past the datagram,
// and a payload comes back only behind a well-formed IPv4 reply header.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/nodes/ProxySpeedTest.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const bool quiet = [] {
        lmkit::log::setFileLoggingEnabled(false);
        return true;
    }();
    (void)quiet;
    std::string host;
    std::uint16_t port = 0;
    auto payload = lmkit::ProxySpeedTest::unsocksifyWithData(bytes, size, &host, &port);
    if (!payload)
        return 0;
    constexpr std::size_t kHeader = lmkit::ProxySpeedTest::kReplyHeaderSize;
    if (size < kHeader || bytes[2] != 0 || bytes[3] != 1)
        std::abort();
    if (payload->size() != size - kHeader ||
        !std::equal(payload->begin(), payload->end(), bytes + kHeader))
        std::abort();
    if (port != static_cast<std::uint16_t>((bytes[8] << 8) | bytes[9]))
        std::abort();
    const std::string expected = std::to_string(bytes[4]) + "." + std::to_string(bytes[5]) + "." +
                                 std::to_string(bytes[6]) + "." + std::to_string(bytes[7]);
    if (host != expected)
        std::abort();
    return 0;
}
