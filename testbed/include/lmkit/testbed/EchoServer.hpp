#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/UdpSocket.hpp"

namespace lmkit {

/// How one echo endpoint misbehaves. All randomness comes from the server's seed, so a run can
/// be repeated exactly.
struct EchoFaults {
    double delaySeconds = 0;   // added to every reply
    double jitterSeconds = 0;  // plus a uniform extra in [0, jitter)
    double loss = 0;           // probability that a request gets no reply
    bool duplicate = false;    // every reply is sent twice
    bool reorder = false;      // replies leave in swapped pairs
    bool garbage = false;      // the reply carries random bytes instead of the payload
    bool otherPort = false;    // the reply leaves from another port of the same address
    double lateSeconds = 0;    // every reply is held this much longer (past a prober's time-out)
    int junkFlood = 0;         // unsolicited junk datagrams sent to the prober per request
};

/// One address and port to answer on; port 0 takes any free port.
struct EchoEndpointConfig {
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    EchoFaults faults;
};

/// A UDP echo service for demos, tests and benchmarks: answers each datagram with its payload,
/// unchanged, from the address and port that was probed, on many endpoints at once.
///
/// It runs on a thread of its own (not the kit's pool) so that it never competes with the code it
/// measures. A delayed reply leaves at its own deadline, to within the wake-up of that thread,
/// whatever else is queued: the injected delay is what a prober measures, not more. Every socket
/// is bound and the thread waits for datagrams before start() returns.
class EchoServer {
  public:
    /// Opens every endpoint and starts answering; nullptr and `error` when one cannot be bound.
    static std::unique_ptr<EchoServer> start(const std::vector<EchoEndpointConfig>& endpoints,
                                             uint64_t seed = 1, Error* error = nullptr);
    /// Opens the endpoints `endpointsOn` gives for one free port, all on that port (as nodes on
    /// many addresses that share their echo port); `port` receives it. The port is free when
    /// chosen, but another program may take it before the endpoints open, so a few are tried.
    /// nullptr when none works.
    static std::unique_ptr<EchoServer> startOnOnePort(
        const std::function<std::vector<EchoEndpointConfig>(uint16_t port)>& endpointsOn,
        uint64_t seed, uint16_t& port);
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    /// Stops answering and closes every endpoint; replies still waiting are dropped.
    void stop();

    /// The endpoints as bound (port 0 replaced by the port the system chose), in start order.
    std::vector<SocketAddress> endpoints() const;

    uint64_t requestsReceived() const;
    uint64_t repliesSent() const;

    /// Parses "HOST:PORT[-LASTPORT][/key=value,...]" (IPv6 hosts in brackets) into one endpoint
    /// per port. Keys: delay, jitter, late (milliseconds), loss (0-1), junk (count), and the
    /// flags duplicate, reorder, garbage, other-port. nullopt and `error` for bad text.
    static std::optional<std::vector<EchoEndpointConfig>> parseEndpoints(const std::string& text,
                                                                         Error* error = nullptr);

    struct Impl;

  private:
    explicit EchoServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace lmkit
