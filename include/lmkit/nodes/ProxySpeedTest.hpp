#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "lmkit/foundation/ThreadSafeMutableArray.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/platform/WeakTimer.hpp"

namespace lmkit {

/// Measures delay and loss of the path through a SOCKS5-style UDP proxy to an echo endpoint.
///
/// One test sends `sendPacketCount` timestamp datagrams to the proxy, each wrapped in a request
/// header that names the IPv4 target and carries the authorisation token; the proxy forwards
/// them and wraps the target's echoes in a reply header. When every echo is in, or
/// kPacketReceiveTimeout after the last send, the test reports the average delay (a trimmed mean
/// above five echoes) and the loss rate. Malformed replies are logged and dropped; only total
/// silence (code 2), a socket close (code 3) or a zero average (code 5) fails a test.
///
/// Always create through create() and keep the returned pointer while testing: every socket
/// event, timer and queued block holds the test weakly. Start, recording and statistics run on
/// the serial data queue ("ProxySpeedTest.dataProcessQueue.<address>"), replies on the global
/// default queue, pacing on the global user-initiated queue, the receive deadline and every
/// callback on the main queue. Start-up errors alone are reported on the caller's thread.
class ProxySpeedTest : public std::enable_shared_from_this<ProxySpeedTest> {
  public:
    static constexpr const char* kErrorDomain = "ProxySpeedTestErrorDomain";
    static constexpr const char* kTimeoutDescription = "all udp packets lost";
    static constexpr const char* kDidCloseDescription = "udp did closed.";
    static constexpr const char* kWiFiDownDescription = "wifi interface is not up, do not bind.";
    static constexpr const char* kWWANDownDescription =
        "wwan interface(pdp_ip0) is not up, do not bind.";
    /// The key of the application's string table whose text describes a zero average.
    static constexpr const char* kEmptyNodesKey = "NodeSelectorErrorEmptyNodes";

    enum ErrorCode : long {
        kErrorTimeout = 2,        // no echo at all by the receive deadline
        kErrorSocketClosed = 3,   // the socket closed (with its error, if any)
        kErrorInterfaceDown = 4,  // the chosen interface is not up
        kErrorZeroAverage = 5,    // the statistics came to exactly 0 ms
    };
    enum ComputingStatus : long {
        kStatusIdle = 0,       // nothing received yet
        kStatusReceiving = 1,  // some echoes in
        kStatusTimedOut = 2,   // receive deadline passed, statistics queued
        kStatusFinished = 3,   // statistics done
    };
    enum InterfaceType : long { kInterfaceAny = 0, kInterfaceWiFi = 1, kInterfaceCellular = 2 };

    /// How long echoes are awaited after the last datagram left. Fixed whatever the pacing: a
    /// proxied echo that takes longer is useless to a game anyway.
    static constexpr double kPacketReceiveTimeout = 0.2;
    /// Request header: 0x00 0x01, FRAG, ATYP, IPv4, port, token, local port.
    static constexpr std::size_t kRequestHeaderSize = 16;
    /// Reply header: two bytes shorter, there is no local-port field.
    static constexpr std::size_t kReplyHeaderSize = 14;

    using SuccessBlock = std::function<void(double averageDelay, double lossRate)>;
    /// The error may be absent: a socket closed without an error still fails the test.
    using FailureBlock = std::function<void(const std::optional<Error>&)>;

    /// nullptr unless `sendPacketCount` is not 0, `proxyToken` and `proxyAddress` are not empty
    /// and `timeInternvalOfPerPacket` is not negative. `bindedInterfaceType` is accepted and
    /// ignored: the test always uses the default route.
    static std::shared_ptr<ProxySpeedTest> create(double timeInternvalOfPerPacket,
                                                  std::int64_t sendPacketCount,
                                                  long bindedInterfaceType,
                                                  std::string proxyAddress, std::int64_t proxyPort,
                                                  std::string proxyToken);
    ~ProxySpeedTest();
    ProxySpeedTest(const ProxySpeedTest&) = delete;
    ProxySpeedTest& operator=(const ProxySpeedTest&) = delete;

    /// Starts a test towards the IPv4 echo endpoint `targetAddress`:`targetPort`. When the
    /// socket cannot be made the failure callback is called at once on this thread.
    void speedTestToTargetAddress(const std::string& targetAddress, std::int64_t targetPort,
                                  SuccessBlock success, FailureBlock failureBlock);
    /// Closes the socket, stops sending and clears both callbacks: no callback of the current
    /// test fires afterwards, including one already waiting for the main queue.
    void stop();

    /// The request datagram for `data`: header then payload. nullopt when there is no payload
    /// or when the token text is not a whole base-10 number. A target that is not an IPv4
    /// literal is sent as 0.0.0.0.
    std::optional<std::vector<std::uint8_t>> socksifyWithData(
        const std::optional<std::vector<std::uint8_t>>& data) const;
    /// The payload of a reply datagram, with the address and port it names in `host` and
    /// `port`. Checks FRAG, then ATYP, then length, logging why a reply is refused.
    static std::optional<std::vector<std::uint8_t>> unsocksifyWithData(const std::uint8_t* data,
                                                                       std::size_t size,
                                                                       std::string* host,
                                                                       std::uint16_t* port);
    static std::optional<std::vector<std::uint8_t>> unsocksifyWithData(
        const std::vector<std::uint8_t>& data, std::string* host, std::uint16_t* port) {
        return unsocksifyWithData(data.data(), data.size(), host, port);
    }

    /// Mean of `numbers`, or 0 for none.
    static double calculateAverageOfNumbers(const std::vector<double>& numbers);
    /// Plain mean up to five numbers; above, one maximum and one minimum are left out.
    static double computeAvgOfNumbers(const std::vector<double>& numbers);
    /// True for the platform's "no buffer space" error. Consulted on close, changes nothing.
    static bool isNoBufferSpaceAvailbaleError(const std::optional<Error>& error);

    /// Whether the bound interface is usable now (always true for types other than 1 and 2).
    bool isInterfaceUp() const;

    // Properties.
    std::string proxyAddress() const;
    std::int64_t proxyPort() const;
    std::string proxyToken() const;
    std::string targetAddress() const;
    std::int64_t targetPort() const;
    std::int64_t sendPacketCount() const { return sendPacketCount_; }
    double timeInternvalOfPerPacket() const { return timeInternvalOfPerPacket_; }
    std::int64_t sentPacketNumber() const;
    long bindedInterfaceType() const { return kInterfaceAny; }
    long computingStatus() const { return computingStatus_.load(); }
    bool isIPV6() const;
    double firstPacketTimeStamp() const;
    std::vector<double> delays() const { return delaysContainer_.immutableArray(); }
    const DispatchQueue& dataProcessQueue() const { return dataProcessQueue_; }
    std::shared_ptr<UdpSocket> udpSocket() const;

    /// Replies that came after the test's receive time-out: lost for the test, counted here.
    long lateReplyCount() const { return lateReplies_.load(); }
    /// Further replies carrying the stamp of a packet already answered.
    long duplicateReplyCount() const { return duplicateReplies_.load(); }

  private:
    class SocketEvents;
    friend class SocketEvents;
    // The callbacks of one test. Results are delivered through the slot of the test that
    // produced them, so a late result of an earlier test never reaches a later one's callbacks.
    struct Callbacks {
        std::mutex mutex;
        SuccessBlock success;  // guarded by mutex
        FailureBlock failure;  // guarded by mutex
    };

    ProxySpeedTest(double interval, std::int64_t count, std::string proxyAddress,
                   std::int64_t proxyPort, std::string proxyToken);

    bool createUdpSocketIfHasError(std::optional<Error>* error);
    bool configUdpSocketIfHasError(UdpSocket& socket, std::optional<Error>* error);
    void closeUdpSocket();
    void startTest(std::uint64_t generation, std::shared_ptr<Callbacks> callbacks,
                   std::string targetAddress, std::int64_t targetPort);  // data queue
    void sendPacketUsingTimerIfNeeded();                                 // data queue
    void sendData();                                                     // send timer
    void sendDataToHost(const std::string& host, std::int64_t port, std::int64_t repeatTime);
    void setupPacketRecvTimer();
    void packetReceiveTimeoutHandler(std::uint64_t generation);  // main queue
    void computeDelay(double delay, const std::string& host, std::uint16_t port);
    void doStatistics();  // data queue
    void stopSendPacketTimer();
    void stopPacketRecvTimeoutTimer();
    void callFailureBlock(std::optional<Error> error);
    std::shared_ptr<Callbacks> currentCallbacks() const;

    // Socket events (socket delegate queue, one at a time).
    void didReceiveData(const Datagram& datagram);
    void didClose(UdpSocket& socket, const std::optional<Error>& error);

    const double timeInternvalOfPerPacket_;
    const std::int64_t sendPacketCount_;
    const DispatchQueue dataProcessQueue_;
    ThreadSafeMutableArray<double> delaysContainer_;
    // Read and written from the delegate queue, the data queue and the main queue.
    std::atomic<long> computingStatus_{kStatusIdle};
    std::atomic<long> lateReplies_{0};
    std::atomic<long> duplicateReplies_{0};
    // Guarded by mutex_: packets sent and replies seen per stamp (packets sent within one
    // millisecond share a stamp), so that only surplus replies count as duplicates.
    std::unordered_map<std::int64_t, int> sentStamps_;
    std::unordered_map<std::int64_t, int> answeredStamps_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::string proxyAddress_;
    std::int64_t proxyPort_;
    std::string proxyToken_;
    std::string targetAddress_;
    std::int64_t targetPort_ = 0;
    std::int64_t sentPacketNumber_ = 0;
    bool isIPV6_ = false;
    double firstPacketTimeStamp_ = 0;
    std::shared_ptr<UdpSocket> udpSocket_;
    std::shared_ptr<SocketEvents> socketEvents_;  // the socket's (weakly held) delegate
    std::shared_ptr<WeakTimer> sendPacketTimer_;
    std::shared_ptr<WeakTimer> packetRecvTimer_;  // never armed: the deadline is a delayed task
    std::shared_ptr<Callbacks> callbacks_;
    // Bumped by every start and by stop(): a start task or receive deadline of an earlier test
    // sees another value and does nothing.
    std::uint64_t generation_ = 0;
};

}  // namespace lmkit
