#include "lmkit/platform/UdpSocket.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <system_error>

#include <asio/bind_executor.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>

#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/ControlMessage.hpp"
#include "lmkit/platform/InterfaceAddresses.hpp"
#include "lmkit/platform/JoinedDatagrams.hpp"
#include "platform/ThreadPool.hpp"

namespace lmkit {

// Named, not anonymous: the socket's state, a class with external linkage, holds one.
namespace udp_socket_detail {

/// A destination in socket-address form.
struct Destination {
    // IPv4 or IPv6 only: a burst holds one per probe, and sockaddr_storage would be 128 bytes.
    union Address {
        sockaddr any;
        sockaddr_in in;
        sockaddr_in6 in6;
    } storage{};
    socklen_t length = 0;
    int family = 0;
};

}  // namespace udp_socket_detail
using udp_socket_detail::Destination;

namespace {

// Datagrams taken from the kernel per system call; one call empties most reply bursts.
constexpr unsigned kReceiveBatch = 32;
// Batches drained per wake-up before yielding the strand to other work (close, perform).
constexpr int kBatchesPerWakeup = 16;
// How long a send waits for room in a full send buffer before reporting EAGAIN: long enough
// for the kernel to drain a burst, short enough not to stall the sending queue.
constexpr int kSendBufferWaitMilliseconds = 200;
// Datagrams handed to the kernel per sendmmsg call (the kernel's own cap is UIO_MAXIOV).
constexpr unsigned kSendBatch = 1024;
#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif
// Datagrams of one message split by the kernel (UDP segmentation offload): its limit on older
// systems, and well inside a message's 64 KiB for probes of a few dozen bytes.
constexpr std::size_t kMaxSegments = 64;
constexpr std::size_t kMaxSegmentedBytes = 60000;
// Only datagrams this small are joined: each segment must fit the path's MTU, which the kernel
// checks and a tunnel can make small; larger ones leave alone, fragmented as ever.
constexpr std::size_t kMaxSegmentBytes = 512;
constexpr size_t kSegmentControlBytes = CMSG_SPACE(sizeof(uint16_t));
// One message of a send batch: `count` datagrams from `first` on, split by the kernel when more
// than one.
struct SegmentedMessage {
    std::size_t first, count;
};

// Datagrams to one destination that follow each other with one payload size (the last may be
// shorter, none empty) make one message: a burst sends each server its probes back to back, and
// one route lookup and one buffer per server instead of one per datagram takes a large share of
// the burst's cost off the kernel.
std::vector<SegmentedMessage> joinForSegmentation(const std::vector<iovec>& vectors,
                                                  const std::vector<const Destination*>& targets,
                                                  bool segmentation) {
    auto sameTarget = [&](std::size_t a, std::size_t b) {
        return targets[a]->length == targets[b]->length &&
               std::memcmp(&targets[a]->storage, &targets[b]->storage, targets[a]->length) == 0;
    };
    std::vector<SegmentedMessage> messages;
    for (std::size_t i = 0; i < vectors.size();) {
        const std::size_t size = vectors[i].iov_len;
        std::size_t count = 1, bytes = size;
        while (segmentation && size > 0 && size <= kMaxSegmentBytes && i + count < vectors.size() &&
               count < kMaxSegments && sameTarget(i, i + count)) {
            const std::size_t next = vectors[i + count].iov_len;
            if (next == 0 || next > size || bytes + next > kMaxSegmentedBytes)
                break;
            bytes += next;
            ++count;
            if (next < size)
                break;  // a shorter one ends the message
        }
        messages.push_back({i, count});
        i += count;
    }
    return messages;
}

// Room for a message's SCM_TIMESTAMPNS and UDP_GRO control messages.
constexpr size_t kControlBytes = CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(int));
// The most a joined message (UDP_GRO) can hold: one IP packet's worth of segments. Each receive
// slot has room for one; only the pages a message reaches are ever touched.
constexpr size_t kMaxMessageBytes = 65536;

// Asks the kernel to stamp every datagram on arrival. Without it the receive time is whatever the
// clock says when a pool thread gets round to reading, which a busy process inflates.
bool enableReceiveTimestamps(int fd) {
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
}

// The kernel switches receive timestamps and UDP_GRO on for the whole system when the first
// socket asks for them, and off again when the last such socket closes. Each switch rewrites
// kernel code on every processor, about a millisecond on a virtual machine, and a node selector
// opens a socket per run: every run paid two switches before its first probe left. One idle
// socket that asks for both and stays open while the process runs keeps them switched on.
// Returns whether the kernel stamps arrivals.
bool keepReceiveFeaturesSwitchedOn() {
    static const bool stamps = [] {
        int fd = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return false;
        takeJoinedDatagrams(fd);
        return enableReceiveTimestamps(fd);
    }();
    return stamps;
}

std::optional<double> kernelReceiveTime(const msghdr& header) {
    auto stamp = controlValue<timespec>(header, SOL_SOCKET, SCM_TIMESTAMPNS);
    if (!stamp)
        return std::nullopt;
    return Clock::millisecondsFromRealtime(stamp->tv_sec, stamp->tv_nsec);
}

// Don't-fragment with the path MTU ignored: the kernel leaves such a datagram's IP
// identification at zero instead of drawing it from its shared, hashed counters, which costs about
// a fifth of a burst of small datagrams on loopback. Both families, for a dual-stack socket.
void leaveUnfragmented(int fd, int family) {
    int probe = IP_PMTUDISC_PROBE;
    setsockopt(fd, IPPROTO_IP, IP_MTU_DISCOVER, &probe, sizeof probe);
    if (family == AF_INET6) {
        int probe6 = IPV6_PMTUDISC_PROBE;
        setsockopt(fd, IPPROTO_IPV6, IPV6_MTU_DISCOVER, &probe6, sizeof probe6);
    }
}

Error posixError(int code) {
    return Error::withDescription(UdpSocket::kPosixErrorDomain, code,
                                  std::system_category().message(code));
}

Error socketError(long code, std::string description) {
    return Error::withDescription(UdpSocket::kSocketErrorDomain, code, std::move(description));
}

std::optional<Destination> parseLiteral(const std::string& host, uint16_t port) {
    Destination destination;
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        auto* in = reinterpret_cast<sockaddr_in*>(&destination.storage);
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        in->sin_addr = v4;
        destination.length = sizeof(sockaddr_in);
        destination.family = AF_INET;
        return destination;
    }
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&destination.storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        in6->sin6_addr = v6;
        destination.length = sizeof(sockaddr_in6);
        destination.family = AF_INET6;
        return destination;
    }
    return std::nullopt;
}

/// Rewrites an IPv4 destination as IPv4-mapped IPv6 for a dual-stack socket.
Destination mapToIPv6(const Destination& v4) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&v4.storage);
    Destination mapped;
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&mapped.storage);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = in->sin_port;
    in6->sin6_addr.s6_addr[10] = 0xff;
    in6->sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&in6->sin6_addr.s6_addr[12], &in->sin_addr, 4);
    mapped.length = sizeof(sockaddr_in6);
    mapped.family = AF_INET6;
    return mapped;
}

SocketAddress describeSource(const sockaddr_storage& storage) {
    SocketAddress address;
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&storage);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
        address.port = ntohs(in->sin_port);
        address.family = AF_INET;
    } else if (storage.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&storage);
        address.port = ntohs(in6->sin6_port);
        if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr)) {
            inet_ntop(AF_INET, &in6->sin6_addr.s6_addr[12], text, sizeof text);
            address.family = AF_INET;
        } else {
            inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
            address.family = AF_INET6;
        }
    }
    address.host = text;
    return address;
}

}  // namespace

struct UdpSocket::State : std::enable_shared_from_this<State> {
    using Event = std::function<void(UdpSocket&, UdpSocketDelegate&)>;

    State(std::weak_ptr<UdpSocketDelegate> delegate, DispatchQueue delegateQueue)
        : delegate(std::move(delegate)),
          delegateQueue(std::move(delegateQueue)),
          strand(asio::make_strand(detail::poolExecutor())) {}

    std::weak_ptr<UdpSocket> owner;
    const std::weak_ptr<UdpSocketDelegate> delegate;
    const DispatchQueue delegateQueue;
    asio::strand<asio::any_io_executor> strand;

    // Written under a unique lock (by binding, and on the strand by close()); read under a shared
    // lock, so that a send never writes to a descriptor that close() recycled.
    mutable std::shared_mutex fdMutex;
    // Held while the socket is opened and bound, on the caller's own thread: a trip to the strand
    // and back would cost a pool thread's wake-up and the caller's before the first datagram.
    std::mutex bindMutex;
    int fd = -1;
    int family = 0;
    uint16_t port = 0;
    // The kernel splits a message into datagrams (UDP_SEGMENT); off for good once a path
    // refuses a split message (an IPsec route does).
    std::atomic<bool> segmentation{false};
    bool dontFragment = false;  // guarded by bindMutex, which binding and setDontFragment() hold

    // Strand only.
    std::optional<asio::posix::stream_descriptor> descriptor;
    bool receiving = false;
    bool waitQueued = false;  // an async_wait for readability is outstanding
    // Room for a batch of the largest messages, left uninitialised: the kernel writes only what
    // arrives. Each slot is a head, packed with the other heads at the front, and a tail that
    // only a datagram longer than the head reaches; so a socket that reads probes and echoes of
    // a few dozen bytes touches the heads' four pages, not a page per slot (each first touch of
    // a page is a fault, and on a virtual machine a costly one).
    static constexpr std::size_t kHeadBytes = 512;
    std::unique_ptr<uint8_t[]> receiveBuffer;
    std::array<mmsghdr, kReceiveBatch> messages{};
    std::array<iovec, 2 * kReceiveBatch> vectors{};
    std::array<sockaddr_storage, kReceiveBatch> sources{};
    struct alignas(cmsghdr) Control {
        char bytes[kControlBytes];
    };
    std::array<Control, kReceiveBatch> controls{};

    std::atomic<bool> closed{false};

    // Delegate events wait here and are delivered by at most one drain block at a time, so that
    // they arrive in order even on a concurrent delegate queue.
    std::mutex outboxMutex;
    std::deque<Event> outbox;     // guarded by outboxMutex
    bool drainScheduled = false;  // guarded by outboxMutex
    bool finished = false;        // guarded by outboxMutex: did-close (or silence) queued

    // Host names being resolved, or resolved, with the datagrams waiting for them.
    struct Pending {
        std::vector<uint8_t> data;
        uint16_t port;
        long tag;
    };
    struct Resolution {
        bool done = false;
        std::optional<Destination> address;  // resolved address (port filled in per send)
        std::optional<Error> error;
        std::vector<Pending> waiting;
    };
    std::mutex resolveMutex;
    std::map<std::string, Resolution> resolutions;  // guarded by resolveMutex

    std::atomic<std::uint64_t> sendCalls{0};
    std::atomic<int> injectedFailures{0};
    std::atomic<int> injectedErrno{0};

    template <class F>
    void runOnStrand(F&& work) {
        if (strand.running_in_this_thread()) {
            work();
            return;
        }
        std::promise<void> done;
        asio::post(strand, [&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    // `handOff`: called as the last act of the strand's read, whose thread can deliver at once.
    void enqueue(Event event, bool last = false, bool handOff = false) {
        std::lock_guard lock(outboxMutex);
        if (finished)
            return;
        if (last)
            finished = true;
        outbox.push_back(std::move(event));
        if (drainScheduled)
            return;
        drainScheduled = true;
        auto deliver = [self = shared_from_this()] { self->drain(); };
        if (handOff)
            delegateQueue.asyncHandOff(std::move(deliver));
        else
            delegateQueue.async(std::move(deliver));
    }

    void drain() {
        for (;;) {
            std::deque<Event> batch;
            {
                std::lock_guard lock(outboxMutex);
                if (outbox.empty()) {
                    drainScheduled = false;
                    return;
                }
                batch.swap(outbox);
            }
            for (auto& event : batch) {
                auto socket = owner.lock();
                auto target = delegate.lock();
                if (!socket || !target)
                    continue;
                event(*socket, *target);
            }
        }
    }

    void reportNotSent(long tag, Error error) {
        enqueue([tag, error = std::move(error)](UdpSocket& socket, UdpSocketDelegate& target) {
            target.udpSocketDidNotSendData(socket, tag, error);
        });
    }

    // Under bindMutex.
    bool openAndBind(uint16_t localPort, const std::optional<std::string>& interfaceName,
                     Error* error) {
        auto fail = [&](Error failure) {
            if (error)
                *error = std::move(failure);
            return false;
        };
        if (closed)
            return fail(socketError(kClosed, "socket is closed"));
        if (isBound())
            return fail(socketError(kBadConfig, "socket is already bound"));

        sockaddr_storage local{};
        socklen_t localLength = 0;
        int newFamily = AF_INET6;
        int newFd = -1;
        if (interfaceName) {
            auto address = bindableAddressOfInterface(*interfaceName);
            if (!address) {
                return fail(socketError(kNoInterfaceAddress,
                                        "interface " + *interfaceName + " has no address"));
            }
            newFamily = address->family;
            localLength = static_cast<socklen_t>(address->sockaddr.size());
            std::memcpy(&local, address->sockaddr.data(), address->sockaddr.size());
            newFd = ::socket(newFamily, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        } else {
            newFd = ::socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (newFd < 0 && errno == EAFNOSUPPORT) {
                // A host without IPv6 still gets a working IPv4 socket.
                newFamily = AF_INET;
                newFd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            }
            local.ss_family = static_cast<sa_family_t>(newFamily);
            localLength = newFamily == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        }
        if (newFd < 0)
            return fail(posixError(errno));
        if (newFamily == AF_INET6 && !interfaceName) {
            int off = 0;
            setsockopt(newFd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        }
        if (newFamily == AF_INET6) {
            reinterpret_cast<sockaddr_in6*>(&local)->sin6_port = htons(localPort);
        } else {
            reinterpret_cast<sockaddr_in*>(&local)->sin_port = htons(localPort);
        }
        if (::bind(newFd, reinterpret_cast<sockaddr*>(&local), localLength) != 0) {
            int code = errno;
            ::close(newFd);
            return fail(posixError(code));
        }
        sockaddr_storage bound{};
        socklen_t boundLength = sizeof bound;
        getsockname(newFd, reinterpret_cast<sockaddr*>(&bound), &boundLength);
        enlargeReceiveBuffer(newFd, kDefaultReceiveBufferBytes);
        keepReceiveFeaturesSwitchedOn();
        enableReceiveTimestamps(newFd);
        takeJoinedDatagrams(newFd);
        if (dontFragment)
            leaveUnfragmented(newFd, newFamily);

        int segmentSize = 0;
        socklen_t optionLength = sizeof segmentSize;
        const bool canSegment =
            getsockopt(newFd, SOL_UDP, UDP_SEGMENT, &segmentSize, &optionLength) == 0;

        std::unique_lock lock(fdMutex);
        if (closed) {
            // close() came meanwhile; its block on the strand may have found nothing to close.
            ::close(newFd);
            return fail(socketError(kClosed, "socket is closed"));
        }
        fd = newFd;
        family = newFamily;
        segmentation = canSegment;
        port = describeSource(bound).port;
        return true;
    }

    static int enlargeReceiveBuffer(int socketFd, int bytes) {
        if (setsockopt(socketFd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
            setsockopt(socketFd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        }
        int granted = 0;
        socklen_t length = sizeof granted;
        getsockopt(socketFd, SOL_SOCKET, SO_RCVBUF, &granted, &length);
        return granted;
    }

    // Strand only.
    void startReceiving() {
        if (receiving)
            return;
        if (!descriptor) {
            std::shared_lock lock(fdMutex);
            if (fd < 0)
                return;
            descriptor.emplace(strand, fd);
        }
        receiving = true;
        receiveBuffer.reset(new uint8_t[kReceiveBatch * kMaxMessageBytes]);
        receiveLoop();
    }

    // Strand only. Asio's reactor watches the descriptor edge-triggered and does not remember an
    // edge that came while no wait was queued: a datagram that arrives between the last read
    // (EAGAIN) and the next wait would sit in the kernel until another one came, and a lone
    // reply would never be read at all. So after queueing the wait, look once more.
    void receiveLoop() {
        for (;;) {
            bool drained = drainSocket();
            if (closed || !descriptor)
                return;
            if (!waitQueued) {
                waitQueued = true;
                descriptor->async_wait(asio::posix::descriptor_base::wait_read,
                                       asio::bind_executor(strand, [weak = weak_from_this()](
                                                                       const std::error_code& ec) {
                                           auto self = weak.lock();
                                           if (!self)
                                               return;
                                           self->waitQueued = false;
                                           if (ec || self->closed || !self->descriptor)
                                               return;
                                           self->receiveLoop();
                                       }));
            }
            if (!drained) {
                // A flood: let other work on the strand (close, perform) run before going on.
                asio::post(strand, [weak = weak_from_this()] {
                    if (auto self = weak.lock(); self && !self->closed && self->descriptor)
                        self->receiveLoop();
                });
                return;
            }
            pollfd check{fd, POLLIN, 0};
            if (::poll(&check, 1, 0) <= 0 || (check.revents & POLLIN) == 0)
                return;
        }
    }

    // Strand only: takes everything the kernel holds (up to a bound) in batches, and hands the
    // whole wake-up's datagrams to the delegate as one event.
    // Returns false when it stopped at its bound with datagrams still waiting.
    bool drainSocket() {
        bool drained = false;
        std::vector<Datagram> batch;
        for (int round = 0; round < kBatchesPerWakeup; ++round) {
            constexpr std::size_t kTailBytes = kMaxMessageBytes - kHeadBytes;
            uint8_t* const tails = receiveBuffer.get() + kReceiveBatch * kHeadBytes;
            for (unsigned i = 0; i < kReceiveBatch; ++i) {
                vectors[2 * i] = {receiveBuffer.get() + i * kHeadBytes, kHeadBytes};
                vectors[2 * i + 1] = {tails + i * kTailBytes, kTailBytes};
                messages[i].msg_hdr = {};
                messages[i].msg_hdr.msg_iov = &vectors[2 * i];
                messages[i].msg_hdr.msg_iovlen = 2;
                messages[i].msg_hdr.msg_name = &sources[i];
                messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
                messages[i].msg_hdr.msg_control = controls[i].bytes;
                messages[i].msg_hdr.msg_controllen = kControlBytes;
                messages[i].msg_len = 0;
            }
            int count = recvmmsg(fd, messages.data(), kReceiveBatch, MSG_DONTWAIT, nullptr);
            if (count <= 0) {
                drained = true;  // EAGAIN (drained), EINTR or a transient error: wait again
                break;
            }
            const double readTime = Clock::nowMilliseconds();
            for (int i = 0; i < count; ++i) {
                const auto* head = static_cast<const uint8_t*>(vectors[2 * i].iov_base);
                const auto* tail = static_cast<const uint8_t*>(vectors[2 * i + 1].iov_base);
                const std::size_t length = messages[i].msg_len;
                const SocketAddress source = describeSource(sources[i]);
                const double arrived = kernelReceiveTime(messages[i].msg_hdr).value_or(readTime);
                // Each datagram of a joined message is handed on as the datagram it was.
                forEachJoinedDatagram(
                    length, joinedSegmentSize(messages[i].msg_hdr),
                    [&](std::size_t offset, std::size_t size) {
                        Datagram datagram;
                        datagram.data.resize(std::min(size, kMaxDatagramBytes));
                        const std::size_t fromHead =
                            offset < kHeadBytes
                                ? std::min(datagram.data.size(), kHeadBytes - offset)
                                : 0;
                        if (fromHead > 0)
                            std::memcpy(datagram.data.data(), head + offset, fromHead);
                        if (datagram.data.size() > fromHead)
                            std::memcpy(datagram.data.data() + fromHead,
                                        tail + (offset + fromHead - kHeadBytes),
                                        datagram.data.size() - fromHead);
                        datagram.source = source;
                        datagram.receiveTime = arrived;
                        batch.push_back(std::move(datagram));
                    });
            }
            if (count < static_cast<int>(kReceiveBatch)) {
                drained = true;
                break;
            }
        }
        if (!batch.empty()) {
            enqueue(
                [batch = std::move(batch)](UdpSocket& socket, UdpSocketDelegate& target) {
                    target.udpSocketDidReceiveDatagrams(socket, batch);
                },
                false, true);
        }
        return drained;
    }

    // Strand only.
    void closeDescriptor() {
        std::unique_lock lock(fdMutex);
        if (descriptor) {
            std::error_code ignored;
            descriptor->close(ignored);
            descriptor.reset();
        } else if (fd >= 0) {
            ::close(fd);  // bound, never read
        }
        fd = -1;
        port = 0;
        receiving = false;
    }

    void shutdown(std::optional<Error> error, bool notify) {
        if (closed.exchange(true))
            return;
        if (notify) {
            enqueue(
                [error = std::move(error)](UdpSocket& socket, UdpSocketDelegate& target) {
                    target.udpSocketDidClose(socket, error);
                },
                true);
        } else {
            std::lock_guard lock(outboxMutex);
            finished = true;
        }
        runOnStrand([this] { closeDescriptor(); });
    }

    bool isBound() {
        std::shared_lock lock(fdMutex);
        return fd >= 0;
    }

    // Binds to an any port unless bound already.
    bool ensureBound(Error* error = nullptr) {
        if (closed) {
            if (error)
                *error = socketError(kClosed, "socket is closed");
            return false;
        }
        if (isBound())
            return true;
        std::lock_guard guard(bindMutex);
        return isBound() || openAndBind(0, std::nullopt, error);
    }

    void sendTo(const uint8_t* data, size_t size, const Destination& destination, long tag) {
        if (takeInjectedFailure(tag))
            return;
        if (!ensureBound()) {
            if (!closed)
                reportNotSent(tag, socketError(kBadConfig, "socket could not be bound"));
            return;
        }
        std::shared_lock lock(fdMutex);
        if (fd < 0)
            return;  // closed meanwhile: a closed socket reports nothing more
        Destination target = destination;
        if (family == AF_INET6 && destination.family == AF_INET) {
            target = mapToIPv6(destination);
        } else if (family == AF_INET && destination.family == AF_INET6) {
            reportNotSent(tag, posixError(EAFNOSUPPORT));
            return;
        }
        const auto* address = reinterpret_cast<const sockaddr*>(&target.storage);
        for (;;) {
            ssize_t sent = ::sendto(fd, data, size, 0, address, target.length);
            ++sendCalls;
            if (sent >= 0)
                return;
            int code = errno;
            if (code == EINTR)
                continue;
            if (code == EAGAIN || code == EWOULDBLOCK) {
                pollfd waiter{fd, POLLOUT, 0};
                if (::poll(&waiter, 1, kSendBufferWaitMilliseconds) > 0)
                    continue;
            }
            reportNotSent(tag, posixError(code));
            return;
        }
    }

    // Takes one injected failure, if any is left, and reports it for `tag`.
    bool takeInjectedFailure(long tag) {
        int remaining = injectedFailures.load();
        while (remaining > 0 && !injectedFailures.compare_exchange_weak(remaining, remaining - 1)) {
        }
        if (remaining <= 0)
            return false;
        reportNotSent(tag, posixError(injectedErrno.load()));
        return true;
    }

    // Datagrams to address literals, sent with as few sendmmsg calls as the kernel allows.
    void sendBatch(const std::vector<const OutgoingDatagram*>& datagrams,
                   std::vector<Destination>& destinations) {
        if (datagrams.empty())
            return;
        if (!ensureBound()) {
            if (!closed)
                for (const auto* datagram : datagrams)
                    reportNotSent(datagram->tag,
                                  socketError(kBadConfig, "socket could not be bound"));
            return;
        }
        std::shared_lock lock(fdMutex);
        if (fd < 0)
            return;
        std::vector<iovec> vectors;
        std::vector<const Destination*> targets;
        std::vector<long> tags;
        vectors.reserve(datagrams.size());
        targets.reserve(datagrams.size());
        tags.reserve(datagrams.size());
        for (std::size_t i = 0; i < datagrams.size(); ++i) {
            Destination& target = destinations[i];
            if (family == AF_INET6 && target.family == AF_INET) {
                target = mapToIPv6(target);
            } else if (family == AF_INET && target.family == AF_INET6) {
                reportNotSent(datagrams[i]->tag, posixError(EAFNOSUPPORT));
                continue;
            }
            auto& payload = datagrams[i]->payload;
            vectors.push_back({const_cast<char*>(payload.data()), payload.size()});
            targets.push_back(&target);
            tags.push_back(datagrams[i]->tag);
        }
        const auto messages = joinForSegmentation(vectors, targets, segmentation);
        std::vector<mmsghdr> headers(messages.size());
        std::vector<std::array<char, kSegmentControlBytes>> controls(messages.size());
        for (std::size_t m = 0; m < messages.size(); ++m) {
            const auto& message = messages[m];
            auto& header = headers[m].msg_hdr;
            header = {};
            header.msg_name = const_cast<Destination::Address*>(&targets[message.first]->storage);
            header.msg_namelen = targets[message.first]->length;
            header.msg_iov = &vectors[message.first];
            header.msg_iovlen = message.count;
            if (message.count > 1) {
                header.msg_control = controls[m].data();
                header.msg_controllen = controls[m].size();
                cmsghdr* control = CMSG_FIRSTHDR(&header);
                control->cmsg_level = SOL_UDP;
                control->cmsg_type = UDP_SEGMENT;
                control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
                const auto segment = static_cast<uint16_t>(vectors[message.first].iov_len);
                std::memcpy(CMSG_DATA(control), &segment, sizeof segment);
            }
        }
        std::size_t done = 0;
        while (done < headers.size()) {
            auto chunk =
                static_cast<unsigned>(std::min<std::size_t>(headers.size() - done, kSendBatch));
            int sent = ::sendmmsg(fd, headers.data() + done, chunk, 0);
            ++sendCalls;
            if (sent > 0) {
                done += static_cast<std::size_t>(sent);
                continue;
            }
            int code = errno;
            if (code == EINTR)
                continue;
            if (code == EAGAIN || code == EWOULDBLOCK) {
                pollfd waiter{fd, POLLOUT, 0};
                if (::poll(&waiter, 1, kSendBufferWaitMilliseconds) > 0)
                    continue;
            }
            // The message at the head of the batch is refused; the rest still get their try. A
            // split message a path cannot take goes again as single datagrams.
            const auto& refused = messages[done];
            const bool unsplittable = refused.count > 1 && (code == EIO || code == EINVAL);
            if (unsplittable)
                segmentation = false;
            for (std::size_t i = refused.first; i < refused.first + refused.count; ++i) {
                if (!unsplittable ||
                    ::sendto(fd, vectors[i].iov_base, vectors[i].iov_len, 0,
                             reinterpret_cast<const sockaddr*>(&targets[i]->storage),
                             targets[i]->length) < 0)
                    reportNotSent(tags[i], posixError(unsplittable ? errno : code));
            }
            ++done;
        }
    }

    void sendToName(std::vector<uint8_t> data, const std::string& host, uint16_t destPort,
                    long tag) {
        std::unique_lock lock(resolveMutex);
        auto& resolution = resolutions[host];
        if (!resolution.done) {
            bool first = resolution.waiting.empty();
            resolution.waiting.push_back({std::move(data), destPort, tag});
            if (first) {
                DispatchQueue::global().async(
                    [self = shared_from_this(), host] { self->resolve(host); });
            }
            return;
        }
        auto address = resolution.address;
        auto error = resolution.error;
        lock.unlock();
        if (!address) {
            reportNotSent(tag, *error);
            return;
        }
        setPort(*address, destPort);
        sendTo(data.data(), data.size(), *address, tag);
    }

    static void setPort(Destination& destination, uint16_t destPort) {
        if (destination.family == AF_INET6) {
            reinterpret_cast<sockaddr_in6*>(&destination.storage)->sin6_port = htons(destPort);
        } else {
            reinterpret_cast<sockaddr_in*>(&destination.storage)->sin_port = htons(destPort);
        }
    }

    void resolve(const std::string& host) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_DGRAM;
        addrinfo* results = nullptr;
        int status = getaddrinfo(host.c_str(), nullptr, &hints, &results);
        std::optional<Destination> address;
        std::optional<Error> error;
        int socketFamily = 0;
        {
            std::shared_lock lock(fdMutex);
            socketFamily = family;
        }
        if (status == 0) {
            for (addrinfo* entry = results; entry != nullptr; entry = entry->ai_next) {
                if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6)
                    continue;
                if (socketFamily == AF_INET && entry->ai_family != AF_INET)
                    continue;
                Destination destination;
                std::memcpy(&destination.storage, entry->ai_addr, entry->ai_addrlen);
                destination.length = entry->ai_addrlen;
                destination.family = entry->ai_family;
                address = destination;
                break;
            }
            freeaddrinfo(results);
        }
        if (!address) {
            std::string reason = status == 0 ? "no usable address" : gai_strerror(status);
            error = Error::withDescription(kResolveErrorDomain, status == 0 ? EAI_NONAME : status,
                                           "cannot resolve " + host + ": " + reason);
        }
        std::vector<Pending> waiting;
        {
            std::lock_guard lock(resolveMutex);
            auto& resolution = resolutions[host];
            resolution.done = true;
            resolution.address = address;
            resolution.error = error;
            waiting.swap(resolution.waiting);
        }
        for (auto& pending : waiting) {
            if (closed)
                return;
            if (!address) {
                reportNotSent(pending.tag, *error);
                continue;
            }
            Destination destination = *address;
            setPort(destination, pending.port);
            sendTo(pending.data.data(), pending.data.size(), destination, pending.tag);
        }
    }
};

UdpSocket::UdpSocket(std::weak_ptr<UdpSocketDelegate> delegate, DispatchQueue delegateQueue)
    : state_(std::make_shared<State>(std::move(delegate), std::move(delegateQueue))) {}

std::shared_ptr<UdpSocket> UdpSocket::create(std::weak_ptr<UdpSocketDelegate> delegate,
                                             DispatchQueue delegateQueue) {
    std::shared_ptr<UdpSocket> socket(new UdpSocket(std::move(delegate), std::move(delegateQueue)));
    socket->state_->owner = socket;
    return socket;
}

UdpSocket::~UdpSocket() {
    state_->shutdown(std::nullopt, false);
}

bool UdpSocket::bindToPort(uint16_t port, Error* error) {
    std::lock_guard guard(state_->bindMutex);
    return state_->openAndBind(port, std::nullopt, error);
}

bool UdpSocket::bindToPort(uint16_t port, const std::string& interfaceName, Error* error) {
    std::lock_guard guard(state_->bindMutex);
    return state_->openAndBind(port, interfaceName, error);
}

bool UdpSocket::beginReceiving(Error* error) {
    if (!state_->ensureBound(error))
        return false;
    // The strand starts reading in its own time: waiting for it would cost a hand-over to a pool
    // thread and back. A datagram that comes first waits in the socket's buffer.
    asio::post(state_->strand, [state = state_] {
        if (!state->closed)
            state->startReceiving();
    });
    return true;
}

bool UdpSocket::sendData(std::string_view data, const std::string& host, uint16_t port, long tag) {
    if (state_->closed)
        return false;
    if (auto destination = parseLiteral(host, port)) {
        state_->sendTo(reinterpret_cast<const uint8_t*>(data.data()), data.size(), *destination,
                       tag);
    } else {
        state_->sendToName(std::vector<uint8_t>(data.begin(), data.end()), host, port, tag);
    }
    return true;
}

bool UdpSocket::sendData(const std::vector<uint8_t>& data, const std::string& host, uint16_t port,
                         long tag) {
    return sendData(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()), host,
                    port, tag);
}

bool UdpSocket::sendDatagrams(const std::vector<OutgoingDatagram>& datagrams) {
    if (state_->closed)
        return false;
    // In slices of one system call's worth, so that a burst of tens of thousands of datagrams
    // does not need its addresses and headers in memory all at once.
    std::vector<const OutgoingDatagram*> literal;
    std::vector<Destination> destinations;
    literal.reserve(std::min<std::size_t>(datagrams.size(), kSendBatch));
    destinations.reserve(literal.capacity());
    // A host's probes come one after another: its address is parsed once for them all.
    const OutgoingDatagram* parsed = nullptr;
    std::optional<Destination> destination;
    for (const auto& datagram : datagrams) {
        if (state_->takeInjectedFailure(datagram.tag))
            continue;
        if (!parsed || datagram.port != parsed->port || datagram.host != parsed->host) {
            destination = parseLiteral(datagram.host, datagram.port);
            parsed = &datagram;
        }
        if (destination) {
            literal.push_back(&datagram);
            destinations.push_back(*destination);
            if (literal.size() == kSendBatch) {
                state_->sendBatch(literal, destinations);
                literal.clear();
                destinations.clear();
            }
        } else {
            state_->sendToName(
                std::vector<uint8_t>(datagram.payload.begin(), datagram.payload.end()),
                datagram.host, datagram.port, datagram.tag);
        }
    }
    state_->sendBatch(literal, destinations);
    return true;
}

void UdpSocket::close() {
    state_->shutdown(std::nullopt, true);
}

void UdpSocket::closeWithError(const Error& error) {
    state_->shutdown(error, true);
}

bool UdpSocket::isClosed() const {
    return state_->closed;
}

uint16_t UdpSocket::localPort() const {
    std::shared_lock lock(state_->fdMutex);
    return state_->port;
}

int UdpSocket::socketFD() const {
    std::shared_lock lock(state_->fdMutex);
    return state_->fd;
}

// These run on the strand, where close() closes the descriptor, so that it stays open while they
// use it.
void UdpSocket::perform(const std::function<void(int fd)>& block) {
    state_->runOnStrand([&] { block(socketFD()); });
}

int UdpSocket::setReceiveBufferSize(int bytes) {
    int granted = -1;
    state_->runOnStrand([&] {
        if (int fd = socketFD(); fd >= 0)
            granted = State::enlargeReceiveBuffer(fd, bytes);
    });
    return granted;
}

int UdpSocket::setSendBufferSize(int bytes) {
    int granted = -1;
    state_->runOnStrand([&] {
        int fd = socketFD();
        if (fd < 0)
            return;
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0) {
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        }
        socklen_t length = sizeof granted;
        getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &granted, &length);
    });
    return granted;
}

void UdpSocket::setDontFragment() {
    // No binding can be under way, and close() waits for the shared lock.
    std::lock_guard guard(state_->bindMutex);
    state_->dontFragment = true;
    std::shared_lock lock(state_->fdMutex);
    if (state_->fd >= 0)
        leaveUnfragmented(state_->fd, state_->family);
}

std::uint64_t UdpSocket::sendCallCount() const {
    return state_->sendCalls.load();
}

std::string UdpSocket::receiveTimestampSource() {
    return keepReceiveFeaturesSwitchedOn() ? "kernel (SO_TIMESTAMPNS)" : "clock at read time";
}

void UdpSocket::failNextSendsForTesting(int count, int errnoValue) {
    state_->injectedErrno = errnoValue;
    state_->injectedFailures = count;
}

const DispatchQueue& UdpSocket::delegateQueue() const {
    return state_->delegateQueue;
}

}  // namespace lmkit
