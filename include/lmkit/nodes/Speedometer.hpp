#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"

namespace lmkit {

class Speedometer;
class UdpSocket;

/// Receives the outcome of a Speedometer's rounds on the engine's delegate queue.
class SpeedometerDelegate {
  public:
    virtual ~SpeedometerDelegate() = default;
    /// One finished round: one entry per packet in send order, the round trip in milliseconds
    /// or -1 for a packet that got no answer before the round's deadline.
    virtual void speedometerDidCompleteRound(Speedometer& speedometer,
                                             const std::vector<double>& delays) = 0;
    /// The engine could not measure (bad host, socket failure, interface down); no round
    /// follows.
    virtual void speedometerDidFail(Speedometer& speedometer, const Error& error) = 0;
};

/// What one Speedometer measures: `rounds` rounds of `packets` UDP echo packets to
/// host:port, one packet every `intervalTime` seconds, each round closed `timeout` seconds
/// after its last send.
struct SpeedometerTask {
    std::string host;
    std::uint16_t port = 0;
    int rounds = 1;
    int packets = 10;
    double intervalTime = 0.02;
    double timeout = 1.0;
    /// 0 any interface, 1 Wi-Fi, 2 cellular (the interface kinds of the status monitor);
    /// binding to a kind that is not up fails the run.
    long interfaceType = 0;
};

/// A round-based UDP echo delay engine. Each packet carries a sequence number and its send
/// time; an echo service that returns payloads unchanged answers it. Rounds are reported to
/// the delegate, which is held weakly; `stop` ends the run and no report follows it. Always
/// create through create(): sockets and timers hold the engine weakly.
///
/// A round ends `timeout` seconds after its last send, or as soon as every packet of it has
/// its echo; the next round starts `intervalTime` later. Echoes are matched by run, round,
/// sequence number and send stamp, so duplicates, echoes of an earlier round and foreign
/// datagrams change nothing. After the last round (or a failure) the socket is closed and
/// isRunning() turns false; reports already queued for the delegate are still delivered unless
/// stop() or a new start() comes first.
class Speedometer : public std::enable_shared_from_this<Speedometer> {
  public:
    static constexpr const char* kErrorDomain = "SpeedometerErrorDomain";
    enum ErrorCode : long {
        kErrorBadTask = 1,        // no host or port, no packets, a negative interval
        kErrorSocket = 2,         // the socket could not be bound or set receiving
        kErrorInterfaceDown = 3,  // the interface kind asked for has no usable address
        kErrorSocketClosed = 4,   // the socket closed under a running measurement
    };
    enum InterfaceType : long { kInterfaceAny = 0, kInterfaceWiFi = 1, kInterfaceCellular = 2 };
    /// Delays of one round are kept per packet; a task asking for more is refused rather than
    /// holding megabytes of bookkeeping for a mistyped number.
    static constexpr int kMaxPacketsPerRound = 10000;

    static std::shared_ptr<Speedometer> create(SpeedometerTask task);
    /// Why `task` cannot run, or nullopt when it can.
    static std::optional<Error> validateTask(const SpeedometerTask& task);
    virtual ~Speedometer();

    const SpeedometerTask& task() const;
    void setDelegate(std::weak_ptr<SpeedometerDelegate> delegate);
    std::shared_ptr<SpeedometerDelegate> delegate() const;
    /// Queue on which delegate calls are made (a private serial queue by default).
    void setDelegateQueue(DispatchQueue queue);

    /// Starts the run; a second start while running does nothing.
    void start();
    /// Ends the run: closes the socket, cancels timers; idempotent, safe from any thread.
    void stop();
    bool isRunning() const;

  protected:
    explicit Speedometer(SpeedometerTask task);

  private:
    class SocketEvents;
    struct State;

    bool isCurrent(std::uint64_t generation) const;
    void beginRun(std::uint64_t generation);
    void beginRound(std::uint64_t generation);
    void sendNext(std::uint64_t generation);
    void closeRound(std::uint64_t generation);
    void didReceive(const std::vector<std::uint8_t>& data);
    void didClose(UdpSocket& socket, const std::optional<Error>& error);
    void fail(std::uint64_t generation, const Error& error);
    void finishRun(std::uint64_t generation);
    void deliver(std::uint64_t generation,
                 std::function<void(SpeedometerDelegate&, Speedometer&)> call);

    const SpeedometerTask task_;
    std::shared_ptr<State> state_;
};

}  // namespace lmkit
