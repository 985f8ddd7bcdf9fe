#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"

namespace lmkit {

class UdpSocket;

/// Where a datagram came from: host text (IPv4-mapped sources read as plain IPv4), port and
/// address family (AF_INET or AF_INET6).
struct SocketAddress {
    std::string host;
    uint16_t port = 0;
    int family = 0;
};

/// One received datagram.
struct Datagram {
    std::vector<uint8_t> data;
    SocketAddress source;
    /// When it arrived, in Clock milliseconds since 1970: the kernel's receive stamp where the
    /// system gives one, so that time spent queued in user space does not count as network
    /// delay; else the clock when the datagram was read.
    double receiveTime = 0;
};

/// One datagram for UdpSocket::sendDatagrams().
struct OutgoingDatagram {
    std::string payload;
    std::string host;
    uint16_t port = 0;
    long tag = 0;
};

/// Receives a socket's events, one at a time and in order, on the socket's delegate queue. The
/// socket holds its delegate weakly: a released delegate simply gets no further events.
class UdpSocketDelegate {
  public:
    virtual ~UdpSocketDelegate() = default;
    /// The datagrams read at one wake-up, in arrival order. By default each goes to
    /// udpSocketDidReceiveData(); a delegate that does per-datagram work on another queue takes
    /// the batch whole, so a burst of replies costs one hop rather than one per datagram.
    virtual void udpSocketDidReceiveDatagrams(UdpSocket& socket,
                                              const std::vector<Datagram>& datagrams) {
        for (const auto& datagram : datagrams)
            udpSocketDidReceiveData(socket, datagram);
    }
    virtual void udpSocketDidReceiveData(UdpSocket& socket, const Datagram& datagram) {
        (void)socket, (void)datagram;
    }
    /// A datagram handed to sendData() did not leave; `error` carries the platform's errno in
    /// kPosixErrorDomain (ENOBUFS stays ENOBUFS) or a resolution failure.
    virtual void udpSocketDidNotSendData(UdpSocket& socket, long tag, const Error& error) {
        (void)socket, (void)tag, (void)error;
    }
    /// The last event of a socket: no delegate call follows it.
    virtual void udpSocketDidClose(UdpSocket& socket, const std::optional<Error>& error) {
        (void)socket, (void)error;
    }
};

/// An asynchronous UDP socket on the kit's thread pool.
///
/// Sockets are dual-stack (IPv4 and IPv6 destinations from one socket) unless bound to an
/// interface, in which case they take the family of the interface's address. Each received
/// datagram carries its receive time (see Datagram). Incoming datagrams
/// are drained in batches as soon as they arrive, so that a burst of replies to thousands of
/// probes is not dropped by a full kernel buffer. Sends to address literals leave on the
/// caller's thread at once; host names are resolved off the caller's thread, and the datagrams
/// to one name leave in the order they were given.
///
/// Every operation is safe from any thread. close() may be called any number of times; its
/// did-close event is the last delegate call, and events queued before it are still delivered.
class UdpSocket : public std::enable_shared_from_this<UdpSocket> {
  public:
    static constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";
    static constexpr const char* kResolveErrorDomain = "UdpSocketResolveErrorDomain";
    static constexpr const char* kSocketErrorDomain = "UdpSocketErrorDomain";
    /// Codes of kSocketErrorDomain.
    enum SocketErrorCode : long { kBadConfig = 1, kClosed = 2, kNoInterfaceAddress = 3 };

    /// A probe run's replies all come back at once; the Linux default (about 200 KiB) holds
    /// roughly 500 of them. 8 MiB holds tens of thousands.
    static constexpr int kDefaultReceiveBufferBytes = 8 * 1024 * 1024;
    /// Datagrams larger than this are delivered truncated; probes and relay frames are far
    /// smaller.
    static constexpr size_t kMaxDatagramBytes = 9216;

    static std::shared_ptr<UdpSocket> create(std::weak_ptr<UdpSocketDelegate> delegate,
                                             DispatchQueue delegateQueue);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    /// Binds to `port` (0: any) on every interface.
    bool bindToPort(uint16_t port, Error* error = nullptr);
    /// Binds to `port` on the address of `interfaceName`; fails when it has no address.
    bool bindToPort(uint16_t port, const std::string& interfaceName, Error* error = nullptr);
    /// Starts delivering received datagrams. Binds to an any port first if not yet bound.
    bool beginReceiving(Error* error = nullptr);

    /// Sends one datagram to a host name or an IPv4/IPv6 literal. Failures come back as
    /// did-not-send events with `tag`. Returns false (and reports nothing) once closed.
    bool sendData(std::string_view data, const std::string& host, uint16_t port, long tag);
    bool sendData(const std::vector<uint8_t>& data, const std::string& host, uint16_t port,
                  long tag);
    /// Sends several datagrams at once: those to address literals leave in one system call
    /// (sendmmsg) per batch the system accepts, the others as sendData() sends them. Failures
    /// come back as did-not-send events with each datagram's tag. Returns false once closed.
    bool sendDatagrams(const std::vector<OutgoingDatagram>& datagrams);

    void close();
    /// Closes and reports `error` in the did-close event.
    void closeWithError(const Error& error);
    bool isClosed() const;

    /// The bound local port, or 0 before binding and after closing.
    uint16_t localPort() const;
    /// The socket's descriptor, or -1 before binding and after closing.
    int socketFD() const;
    /// Runs `block` with the descriptor on the socket's own queue and returns when it has run
    /// (at once when called from that queue). The descriptor is -1 when there is no socket.
    void perform(const std::function<void(int fd)>& block);

    /// Asks for a receive buffer of `bytes` (SO_RCVBUFFORCE where permitted, else SO_RCVBUF,
    /// which the system caps). Returns the size the system granted, or -1 without a socket.
    int setReceiveBufferSize(int bytes);
    /// Same for the send buffer.
    int setSendBufferSize(int bytes);

    /// Datagrams leave with don't-fragment set and the path MTU ignored, which spares the kernel
    /// work per datagram on a burst of small ones such as probes. One larger than the way out's
    /// MTU is refused (a did-not-send event with EMSGSIZE) instead of fragmented. Takes effect
    /// at binding when called before it.
    void setDontFragment();

    /// System calls that handed datagrams to the kernel so far (sendto and sendmmsg alike): a
    /// group sent with sendDatagrams() costs one per 1,024 datagrams.
    std::uint64_t sendCallCount() const;

    /// How receive times are taken on this system: "kernel (SO_TIMESTAMPNS)" when the kernel
    /// stamps each datagram, else "clock at read time".
    static std::string receiveTimestampSource();

    /// Makes the next `count` sends fail with `errnoValue` as if the system had refused them.
    void failNextSendsForTesting(int count, int errnoValue);

    const DispatchQueue& delegateQueue() const;

    struct State;

  private:
    UdpSocket(std::weak_ptr<UdpSocketDelegate> delegate, DispatchQueue delegateQueue);
    std::shared_ptr<State> state_;
};

}  // namespace lmkit
