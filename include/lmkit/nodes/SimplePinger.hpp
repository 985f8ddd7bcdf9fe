#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/nodes/SimplePingNode.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/platform/WeakTimer.hpp"

namespace lmkit {

/// Measures the two-way delay to one UDP echo endpoint with a single datagram: the datagram
/// carries the send time in decimal milliseconds, the endpoint echoes it, and the delay is the
/// arrival time minus the echoed time. Used by the periodic network monitor, possibly bound to
/// the Wi-Fi or the cellular interface so that one radio path can be measured while the other
/// is the default route.
///
/// One measurement at a time: testPing() reports at most once, through the success callback
/// with the delay or through the failure callback; either clears both. A node without an
/// address measures nothing and reports nothing. The socket and the timer outlive a result: a
/// second testPing() reuses the socket and the work queue; stop() closes and cancels them.
///
/// Always create through create() and keep the returned pointer while measuring: every socket
/// event, timer and queued block holds the pinger weakly, so releasing it ends a measurement
/// silently. Everything but the public entry points runs on the pinger's serial work queue
/// ("com.simpleping.<address>"); callbacks run on the queue given at creation, else on the work
/// queue.
class SimplePinger : public std::enable_shared_from_this<SimplePinger> {
  public:
    /// Shared with the node selector: both report through the same domain.
    static constexpr const char* kErrorDomain = "NodeSelectorErrorDomain";
    static constexpr const char* kTimeoutDescription = "all udp packets lost";
    static constexpr const char* kDidCloseDescription = "udp did closed.";
    static constexpr const char* kWiFiDownDescription = "wifi interface is not up, do not bind.";
    static constexpr const char* kWWANDownDescription =
        "wwan interface(pdp_ip0) is not up, do not bind.";

    enum ErrorCode : long {
        kErrorSocket = 1,         // create, bind or begin-receiving failed (carries the cause)
        kErrorTimeout = 2,        // no usable echo within testPingTimeout
        kErrorSocketClosed = 3,   // the socket closed with an error
        kErrorInterfaceDown = 4,  // the chosen interface is not up; reaches callers as code 1
    };
    enum InterfaceType : long { kInterfaceAny = 0, kInterfaceWiFi = 1, kInterfaceCellular = 2 };

    using SuccessBlock = std::function<void(double delayMilliseconds)>;
    /// The error may be absent: a socket closed without an error still fails the measurement.
    using FailureBlock = std::function<void(const std::optional<Error>&)>;

    /// A pinger bound to `bindedInterfaceType` (0 none, 1 Wi-Fi, 2 cellular; others act as 0)
    /// that waits `testPingTimeout` seconds for the echo of `pingNode`. Callbacks run on
    /// `dispatchQueue`, or on the pinger's work queue when none is given.
    static std::shared_ptr<SimplePinger> create(
        long bindedInterfaceType, double testPingTimeout, std::optional<SimplePingNode> pingNode,
        std::optional<DispatchQueue> dispatchQueue = std::nullopt);
    ~SimplePinger();
    SimplePinger(const SimplePinger&) = delete;
    SimplePinger& operator=(const SimplePinger&) = delete;

    /// Stores the callbacks and starts one measurement on the work queue; returns at once.
    void testPing(SuccessBlock success, FailureBlock failure);
    /// Closes the socket and cancels the timer. The callbacks stay set: a result already on its
    /// way to the callback queue is still delivered; nothing new is measured.
    void stop();

    /// Whether the bound interface is usable now (always true for types other than 1 and 2).
    bool isInterfaceUp() const;

    long bindedInterfaceType() const { return bindedInterfaceType_; }
    double testPingTimeout() const { return testPingTimeout_; }
    std::optional<SimplePingNode> pingNode() const;
    void setPingNode(std::optional<SimplePingNode> node);
    /// The callback queue, once known (given at creation, or the work queue after a start).
    std::optional<DispatchQueue> dispatchQueue() const;
    /// The work queue; absent before the first testPing().
    std::optional<DispatchQueue> generalQueue() const;
    std::shared_ptr<UdpSocket> udpSocket() const;
    /// Origin subtracted from the sent time and added back on receipt; 0 unless set here.
    double firstPacketTimeStamp() const;
    void setFirstPacketTimeStamp(double milliseconds);

    /// Echoes of an earlier datagram whose measurement had already timed out or been replaced by
    /// a newer one: each answers the datagram it carries the stamp of, never the current one.
    long lateReplyCount() const { return lateReplies_.load(); }
    /// Further echoes of a datagram that was already answered.
    long duplicateReplyCount() const { return duplicateReplies_.load(); }

  private:
    class SocketEvents;
    friend class SocketEvents;

    SimplePinger(long bindedInterfaceType, double testPingTimeout,
                 std::optional<SimplePingNode> pingNode, std::optional<DispatchQueue> queue);

    // Steps of a measurement (work queue unless noted).
    void createGeneralQueue();  // caller's thread
    void startPing();
    bool createUdpSocketIfHasError(std::optional<Error>* error);
    bool configUdpSocketIfHasError(UdpSocket& socket, std::optional<Error>* error);
    bool send();
    void startTimeoutChecker();
    void timeoutHandler();
    void invalidateTimeoutTimer();  // any thread
    void closeUdpSocket();          // any thread
    void callSuccessBlockWithDelay(double delay);
    void callFailureBlockWithError(std::optional<Error> error);

    // Socket events (work queue).
    void didReceiveData(const Datagram& datagram);
    void didNotSendData(long tag, const Error& error);
    void didClose(const std::optional<Error>& error);

    const long bindedInterfaceType_;
    const double testPingTimeout_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::optional<SimplePingNode> pingNode_;
    std::optional<DispatchQueue> dispatchQueue_;
    std::optional<DispatchQueue> generalQueue_;
    std::shared_ptr<UdpSocket> udpSocket_;
    std::shared_ptr<SocketEvents> socketEvents_;  // the socket's (weakly held) delegate
    SuccessBlock successBlock_;
    FailureBlock failureBlock_;
    double firstPacketTimeStamp_ = 0;
    std::shared_ptr<WeakTimer> timeoutChecker_;
    // The stamp of the datagram the pending measurement waits for, the last one sent and the
    // last one answered: an echo counts only for the datagram it carries the stamp of.
    std::optional<std::int64_t> outstandingStamp_;
    std::optional<std::int64_t> lastSentStamp_;
    std::optional<std::int64_t> answeredStamp_;
    std::atomic<long> lateReplies_{0};
    std::atomic<long> duplicateReplies_{0};
};

}  // namespace lmkit
