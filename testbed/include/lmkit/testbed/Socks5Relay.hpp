#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/UdpSocket.hpp"

namespace lmkit {

/// How the relay misbehaves. Randomness comes from the relay's seed, so a run can be repeated.
struct Socks5RelayFaults {
    double delaySeconds = 0;  // added before each request is forwarded
    double loss = 0;          // probability that a request is dropped instead of forwarded
    // Reply shapes that a client must refuse:
    std::uint8_t replyFrag = 0;         // FRAG byte of every reply
    std::uint8_t replyAddressType = 1;  // ATYP byte of every reply
    std::size_t truncateReplyTo = 0;    // cut every reply to this many bytes (0: whole)
    bool garbageReplies = false;        // every reply is random bytes of the same length
};

struct Socks5RelayConfig {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;  // 0: any free port
    std::uint32_t token = 0;
    Socks5RelayFaults faults;
    /// A client's association (its upstream socket) is closed after this long without a request
    /// or a reply: clients come and go, and each holds a descriptor.
    double idleTimeoutSeconds = kDefaultIdleTimeoutSeconds;
    /// At most this many associations at once; a new client beyond it takes the socket of the
    /// one that was used least recently.
    std::size_t maxAssociations = kDefaultMaxAssociations;

    static constexpr double kDefaultIdleTimeoutSeconds = 60;
    static constexpr std::size_t kDefaultMaxAssociations = 256;
};

/// A SOCKS5-style UDP relay for tests, demos and benchmarks, as the kit's proxies speak it.
///
/// A request is a 16-byte header (two bytes, FRAG 0, ATYP 1, IPv4 target, target port, 32-bit
/// token, the client's local port; big-endian) and the payload. Requests with another token,
/// another FRAG or ATYP, or a short header are rejected. The payload goes to the target from a
/// socket of the client's own; whatever comes back there is returned to the client behind a
/// 14-byte reply header (two zero bytes, FRAG 0, ATYP 1, the replying address and port, the
/// token). Runs on a thread of its own, like EchoServer, and forwards a delayed request at its
/// own deadline. Associations that fall idle are closed and, at the cap, the least recently used
/// one makes room; both are logged ("[Socks5Relay] ..."), and a client that comes back simply
/// gets a new one.
class Socks5Relay {
  public:
    /// Opens the relay and starts relaying; nullptr and `error` when it cannot listen.
    static std::unique_ptr<Socks5Relay> start(const Socks5RelayConfig& config,
                                              std::uint64_t seed = 1, Error* error = nullptr);
    ~Socks5Relay();
    Socks5Relay(const Socks5Relay&) = delete;
    Socks5Relay& operator=(const Socks5Relay&) = delete;

    /// Stops relaying and closes every socket; requests still waiting are dropped.
    void stop();

    /// Where clients send requests (port 0 replaced by the port the system chose).
    SocketAddress endpoint() const;

    std::uint64_t requestsReceived() const;
    /// Requests refused for their token or header.
    std::uint64_t requestsRejected() const;
    std::uint64_t requestsForwarded() const;
    std::uint64_t repliesRelayed() const;
    /// Client associations open now, and closed so far for idleness or to make room.
    std::size_t associationCount() const;
    std::uint64_t associationsExpired() const;
    std::uint64_t associationsEvicted() const;

    struct Impl;

  private:
    explicit Socks5Relay(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace lmkit
