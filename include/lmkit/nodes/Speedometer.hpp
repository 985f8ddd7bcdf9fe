#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"

namespace lmkit {

class Speedometer;

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
class Speedometer : public std::enable_shared_from_this<Speedometer> {
public:
    static std::shared_ptr<Speedometer> create(SpeedometerTask task);
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
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace lmkit
