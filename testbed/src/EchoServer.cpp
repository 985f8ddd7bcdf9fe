#include "lmkit/testbed/EchoServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstring>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "ServerLoop.hpp"
#include "Sockets.hpp"
#include "lmkit/platform/JoinedDatagrams.hpp"

namespace lmkit {

using testbed::ServerLoop;

namespace {

constexpr const char* kErrorDomain = "EchoServerErrorDomain";
// Datagrams taken (and answered) per system call.
constexpr unsigned kBatch = 64;
// IPv4 endpoints on one port, at least this many, share one socket bound to the port on every
// address. A burst of probes to a thousand addresses then wakes one socket, not a thousand: on
// loopback the prober's own send pays for every wake-up, which remote nodes never cost it.
constexpr std::size_t kSharedSocketEndpoints = 64;
constexpr size_t kMaxPayload = 65536;

Error failure(const std::string& text) {
    return Error::withDescription(kErrorDomain, 1, text);
}

bool parseNumber(std::string_view text, double& value) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

struct EchoServer::Impl {
    struct Endpoint {
        EchoEndpointConfig config;
        int fd = -1;
        bool shared = false;  // fd is the port's shared socket: replies leave from `address`
        in_addr address{};
        int otherFd = -1;        // the "other port" for replies from elsewhere
        bool plain = true;       // no fault at all: a batch is answered with one system call
        bool sameForAll = true;  // no fault drawn or applied per datagram
        std::mt19937_64 random;
        struct Held {
            sockaddr_storage to;
            socklen_t length;
            std::vector<uint8_t> payload;
        };
        std::optional<Held> held;  // reorder: the reply waiting for its successor
    };
    struct alignas(cmsghdr) Control {
        char bytes[testbed::kArrivalControlBytes];
    };
    // A reply that waits to leave with others.
    struct Outgoing {
        int fd;
        sockaddr_storage to;
        socklen_t length;
        std::vector<uint8_t> payload;
        Control control{};
        std::size_t controlLength = 0;
        std::size_t datagrams = 1;

        msghdr header(iovec& vector) {
            msghdr header{};
            header.msg_name = &to;
            header.msg_namelen = length;
            header.msg_iov = &vector;
            header.msg_iovlen = 1;
            header.msg_control = controlLength ? control.bytes : nullptr;
            header.msg_controllen = controlLength;
            return header;
        }
    };

    std::unique_ptr<ServerLoop> loop;
    std::vector<Endpoint> endpoints;  // fixed after start; the fields change on the loop only
    std::vector<int> sharedFds;
    // Shared sockets' endpoints by port and address (port << 32 | address).
    std::unordered_map<std::uint64_t, std::size_t> byDestination;
    std::atomic<bool> stopped{false};
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> sent{0};
    // The loop's receive slots, allocated and touched before the first datagram comes, so that
    // the first reply of a fresh server is not late by the page faults of 4 MiB.
    std::vector<uint8_t> buffer = std::vector<uint8_t>(kBatch * kMaxPayload);
    std::array<mmsghdr, kBatch> messages{};
    std::array<iovec, kBatch> vectors{};
    std::array<sockaddr_storage, kBatch> sources{};
    std::array<Control, kBatch> controls{};
    // Replies of the timed actions now running, held to leave together (loop thread only).
    bool holding = false;
    std::vector<Outgoing> outgoing;

    ~Impl() {
        loop.reset();  // the thread first: it uses the descriptors
        for (int fd : sharedFds)
            ::close(fd);
        for (auto& endpoint : endpoints) {
            if (endpoint.fd >= 0 && !endpoint.shared)
                ::close(endpoint.fd);
            if (endpoint.otherFd >= 0)
                ::close(endpoint.otherFd);
        }
    }

    /// Sends `payload`; a message read whole (`segment` > 0) leaves whole, cut as it came. The
    /// replies of timed actions wait until the loop has run every action due, and leave together.
    void transmit(Endpoint& endpoint, const sockaddr_storage& to, socklen_t length,
                  const std::vector<uint8_t>& payload, std::size_t segment = 0) {
        Outgoing message{endpoint.config.faults.otherPort ? endpoint.otherFd : endpoint.fd, to,
                         length, payload};
        iovec vector{message.payload.data(), message.payload.size()};
        msghdr header = message.header(vector);
        header.msg_control = message.control.bytes;
        message.datagrams = testbed::cutIntoSegments(header, payload.size(), segment);
        if (endpoint.shared)
            testbed::leaveFrom(header, message.control.bytes, endpoint.address);
        message.controlLength = header.msg_controllen;
        if (holding) {
            outgoing.push_back(std::move(message));
            return;
        }
        if (::sendmsg(message.fd, &header, 0) >= 0)
            sent += message.datagrams;
    }

    /// Sends the replies the last pass of due actions held, a system call per socket: a burst of
    /// probes falls due as a burst of replies, and a call per reply made the last ones late by
    /// milliseconds.
    void sendHeld() {
        holding = false;
        if (outgoing.empty())
            return;
        std::vector<iovec> vectors(outgoing.size());
        std::vector<mmsghdr> headers(outgoing.size());
        for (std::size_t i = 0; i < outgoing.size(); ++i) {
            vectors[i] = {outgoing[i].payload.data(), outgoing[i].payload.size()};
            headers[i].msg_hdr = outgoing[i].header(vectors[i]);
        }
        for (std::size_t done = 0; done < outgoing.size();) {
            std::size_t end = done;
            while (end < outgoing.size() && outgoing[end].fd == outgoing[done].fd)
                ++end;
            int n = sendmmsg(outgoing[done].fd, headers.data() + done,
                             static_cast<unsigned>(end - done), 0);
            // A refused reply is lost, as a single send's would be; the rest still go.
            for (int i = 0; i < n; ++i)
                sent += outgoing[done + static_cast<std::size_t>(i)].datagrams;
            done += n > 0 ? static_cast<std::size_t>(n) : 1;
        }
        outgoing.clear();
    }

    /// Sends a reply now, applying the faults that shape what leaves.
    void reply(Endpoint& endpoint, const sockaddr_storage& to, socklen_t length,
               std::vector<uint8_t> payload, std::size_t segment) {
        const auto& faults = endpoint.config.faults;
        if (faults.garbage) {
            for (auto& byte : payload)
                byte = static_cast<uint8_t>(endpoint.random());
            if (payload.empty())
                payload.push_back(0xff);
        }
        if (faults.reorder) {
            if (!endpoint.held) {
                endpoint.held = Endpoint::Held{to, length, std::move(payload)};
                return;
            }
            transmit(endpoint, to, length, payload);
            auto held = std::move(*endpoint.held);
            endpoint.held.reset();
            transmit(endpoint, held.to, held.length, held.payload);
            return;
        }
        transmit(endpoint, to, length, payload, segment);
        if (faults.duplicate)
            transmit(endpoint, to, length, payload);
    }

    /// Takes one request, or the datagrams of a message read whole (`segment` > 0) on an endpoint
    /// that treats every datagram alike: the delay is measured from `arrived`, the moment the
    /// kernel took it in.
    void handle(size_t index, const sockaddr_storage& from, socklen_t length,
                std::vector<uint8_t> payload, ServerLoop::Clock::time_point arrived,
                std::size_t segment = 0) {
        received += testbed::datagramsIn(payload.size(), segment);
        auto& endpoint = endpoints[index];
        const auto& faults = endpoint.config.faults;
        for (int i = 0; i < faults.junkFlood; ++i) {
            std::vector<uint8_t> junk(1 + endpoint.random() % 32);
            for (auto& byte : junk)
                byte = static_cast<uint8_t>('a' + endpoint.random() % 26);
            ::sendto(endpoint.fd, junk.data(), junk.size(), 0,
                     reinterpret_cast<const sockaddr*>(&from), length);
        }
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        if (faults.loss > 0 && unit(endpoint.random) < faults.loss)
            return;
        double wait = faults.delaySeconds + faults.lateSeconds;
        if (faults.jitterSeconds > 0)
            wait += faults.jitterSeconds * unit(endpoint.random);
        if (wait <= 0) {
            reply(endpoint, from, length, std::move(payload), segment);
            return;
        }
        auto due = arrived + std::chrono::duration_cast<ServerLoop::Clock::duration>(
                                 std::chrono::duration<double>(wait));
        loop->at(due, [this, index, from, length, segment, payload = std::move(payload)]() mutable {
            holding = true;
            reply(endpoints[index], from, length, std::move(payload), segment);
        });
    }

    // Reads up to a batch from `fd` into the loop's slots; the number read.
    int readBatch(int fd) {
        for (unsigned i = 0; i < kBatch; ++i) {
            vectors[i] = {buffer.data() + i * kMaxPayload, kMaxPayload};
            messages[i].msg_hdr = {};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_name = &sources[i];
            messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
            messages[i].msg_hdr.msg_control = controls[i].bytes;
            messages[i].msg_hdr.msg_controllen = sizeof controls[i];
        }
        return recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    }

    void receiveFrom(size_t index) {
        auto& endpoint = endpoints[index];
        for (;;) {
            int count = readBatch(endpoint.fd);
            if (count <= 0)
                return;
            const testbed::ArrivalClock clock;
            if (endpoint.plain) {
                // The whole batch goes back with one system call: the same buffers, addressed
                // back to their senders, a message read whole split again as it came.
                std::array<std::size_t, kBatch> datagrams{};
                for (int i = 0; i < count; ++i) {
                    auto& header = messages[i].msg_hdr;
                    vectors[i].iov_len = messages[i].msg_len;
                    datagrams[i] = testbed::cutIntoSegments(header, messages[i].msg_len,
                                                            joinedSegmentSize(header));
                    received += datagrams[i];
                }
                int done = 0;
                while (done < count) {
                    int n = sendmmsg(endpoint.fd, messages.data() + done, count - done, 0);
                    if (n <= 0)
                        break;
                    for (int i = done; i < done + n; ++i)
                        sent += datagrams[i];
                    done += n;
                }
            } else {
                for (int i = 0; i < count; ++i)
                    take(index, i, clock);
            }
            if (count < static_cast<int>(kBatch))
                return;
        }
    }

    // Message `i` of the last read, for endpoint `index`.
    void take(size_t index, int i, const testbed::ArrivalClock& clock) {
        const auto& header = messages[i].msg_hdr;
        const auto arrived = clock.arrival(header);
        const auto* begin = static_cast<const uint8_t*>(vectors[i].iov_base);
        const std::size_t length = messages[i].msg_len;
        const std::size_t segment = joinedSegmentSize(header);
        if (endpoints[index].sameForAll && segment) {
            handle(index, sources[i], header.msg_namelen,
                   std::vector<uint8_t>(begin, begin + length), arrived, segment);
            return;
        }
        // Faults drawn per datagram: each datagram of a message read whole is a request of its
        // own.
        forEachJoinedDatagram(length, segment, [&](std::size_t at, std::size_t size) {
            handle(index, sources[i], header.msg_namelen,
                   std::vector<uint8_t>(begin + at, begin + at + size), arrived);
        });
    }

    // A port's shared socket: each message goes to the endpoint of the address it was sent to;
    // one sent to an address no endpoint has is dropped.
    void receiveShared(int fd, uint16_t port) {
        for (;;) {
            int count = readBatch(fd);
            if (count <= 0)
                return;
            const testbed::ArrivalClock clock;
            for (int i = 0; i < count; ++i) {
                auto to = testbed::sentTo(messages[i].msg_hdr);
                if (!to)
                    continue;
                auto found = byDestination.find(std::uint64_t{port} << 32 | to->s_addr);
                if (found != byDestination.end())
                    take(found->second, i, clock);
            }
            if (count < static_cast<int>(kBatch))
                return;
        }
    }
};

EchoServer::EchoServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

EchoServer::~EchoServer() {
    stop();
}

std::unique_ptr<EchoServer> EchoServer::start(const std::vector<EchoEndpointConfig>& endpoints,
                                              uint64_t seed, Error* error) {
    auto fail = [&](const std::string& text) -> std::unique_ptr<EchoServer> {
        if (error)
            *error = failure(text);
        return nullptr;
    };
    if (endpoints.empty())
        return fail("no endpoint to listen on");
    auto impl = std::make_unique<Impl>();
    std::string reason;
    impl->loop = ServerLoop::create(reason);
    if (!impl->loop)
        return fail(reason);
    impl->loop->afterDueActions([raw = impl.get()] { raw->sendHeld(); });

    // Ports with enough IPv4 endpoints get one socket for all of them; a port that cannot be
    // had on every address keeps a socket per endpoint.
    auto shareable = [](const EchoEndpointConfig& config, in_addr& address) {
        return config.port != 0 && !config.faults.otherPort &&
               inet_pton(AF_INET, config.host.c_str(), &address) == 1;
    };
    // An endpoint of its own on the port would clash with a socket bound to every address.
    std::unordered_map<uint16_t, std::size_t> onPort;
    std::unordered_set<uint16_t> ownSockets;
    for (const auto& config : endpoints) {
        in_addr address{};
        if (shareable(config, address))
            ++onPort[config.port];
        else if (config.port != 0 && inet_pton(AF_INET, config.host.c_str(), &address) == 1)
            ownSockets.insert(config.port);
    }
    std::unordered_map<uint16_t, int> sharedOn;
    for (auto [port, count] : onPort) {
        if (count < kSharedSocketEndpoints || ownSockets.count(port))
            continue;
        socklen_t length = 0;
        auto any = testbed::makeAddress("0.0.0.0", port, length);
        int fd = testbed::openBound(*any, length, testbed::kBufferBytes, reason);
        int on = 1;
        if (fd >= 0 && setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0) {
            ::close(fd);
            fd = -1;
        }
        if (fd < 0)
            continue;
        takeJoinedDatagrams(fd);
        impl->sharedFds.push_back(fd);
        sharedOn[port] = fd;
        auto* raw = impl.get();
        if (!impl->loop->watch(fd, [raw, fd, port] { raw->receiveShared(fd, port); }))
            return fail("cannot watch port " + std::to_string(port));
    }

    // Each endpoint carries its own random engine (2.5 KB): growing the list by copying would
    // move tens of megabytes while ten thousand endpoints open.
    impl->endpoints.reserve(endpoints.size());
    for (size_t i = 0; i < endpoints.size(); ++i) {
        Impl::Endpoint endpoint;
        endpoint.config = endpoints[i];
        endpoint.random.seed(seed + i);
        const auto& faults = endpoint.config.faults;
        endpoint.sameForAll = !faults.garbage && !faults.reorder && !faults.duplicate &&
                              faults.loss <= 0 && faults.junkFlood == 0 &&
                              faults.jitterSeconds <= 0;
        endpoint.plain = endpoint.sameForAll && !faults.otherPort && faults.delaySeconds <= 0 &&
                         faults.lateSeconds <= 0;
        socklen_t length = 0;
        auto address = testbed::makeAddress(endpoint.config.host, endpoint.config.port, length);
        if (!address)
            return fail("not an IP address: " + endpoint.config.host);
        std::string where = endpoint.config.host + ":" + std::to_string(endpoint.config.port);
        if (auto shared = sharedOn.find(endpoint.config.port);
            shared != sharedOn.end() && shareable(endpoint.config, endpoint.address)) {
            endpoint.fd = shared->second;
            endpoint.shared = true;
            auto key = std::uint64_t{endpoint.config.port} << 32 | endpoint.address.s_addr;
            if (!impl->byDestination.emplace(key, i).second)
                return fail("cannot listen on " + where + ": listed twice");
            impl->endpoints.push_back(std::move(endpoint));
            continue;
        }
        endpoint.fd = testbed::openBound(*address, length, testbed::kBufferBytes, reason);
        if (endpoint.fd < 0)
            return fail("cannot listen on " + where + ": " + reason);
        endpoint.config.port = testbed::boundPort(endpoint.fd);
        takeJoinedDatagrams(endpoint.fd);
        if (faults.otherPort) {
            auto other = testbed::makeAddress(endpoint.config.host, 0, length);
            endpoint.otherFd = testbed::openBound(*other, length, testbed::kBufferBytes, reason);
            if (endpoint.otherFd < 0) {
                ::close(endpoint.fd);
                return fail("cannot open a second port on " + where + ": " + reason);
            }
        }
        impl->endpoints.push_back(std::move(endpoint));
        auto* raw = impl.get();
        if (!impl->loop->watch(impl->endpoints.back().fd, [raw, i] { raw->receiveFrom(i); }))
            return fail("cannot watch " + where);
    }
    impl->loop->start();
    return std::unique_ptr<EchoServer>(new EchoServer(std::move(impl)));
}

std::unique_ptr<EchoServer> EchoServer::startOnOnePort(
    const std::function<std::vector<EchoEndpointConfig>(uint16_t port)>& endpointsOn, uint64_t seed,
    uint16_t& port) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        auto finder = start({EchoEndpointConfig{"127.0.0.1", 0, {}}});
        if (!finder)
            continue;
        port = finder->endpoints()[0].port;
        finder.reset();
        if (auto server = start(endpointsOn(port), seed))
            return server;
    }
    return nullptr;
}

void EchoServer::stop() {
    if (!impl_ || impl_->stopped.exchange(true))
        return;
    impl_->loop->stop();
}

std::vector<SocketAddress> EchoServer::endpoints() const {
    std::vector<SocketAddress> result;
    for (const auto& endpoint : impl_->endpoints) {
        bool v6 = endpoint.config.host.find(':') != std::string::npos;
        result.push_back({endpoint.config.host, endpoint.config.port, v6 ? AF_INET6 : AF_INET});
    }
    return result;
}

uint64_t EchoServer::requestsReceived() const {
    return impl_->received;
}
uint64_t EchoServer::repliesSent() const {
    return impl_->sent;
}

std::optional<std::vector<EchoEndpointConfig>> EchoServer::parseEndpoints(const std::string& text,
                                                                          Error* error) {
    auto fail = [&](const std::string& why) -> std::optional<std::vector<EchoEndpointConfig>> {
        if (error)
            *error = failure("bad endpoint \"" + text + "\": " + why);
        return std::nullopt;
    };
    std::string_view rest = text;
    std::string_view options;
    if (auto slash = rest.find('/'); slash != std::string_view::npos) {
        options = rest.substr(slash + 1);
        rest = rest.substr(0, slash);
    }
    std::string host;
    std::string_view ports;
    if (!rest.empty() && rest.front() == '[') {
        auto close = rest.find(']');
        if (close == std::string_view::npos || close + 1 >= rest.size() || rest[close + 1] != ':') {
            return fail("expected [IPv6]:PORT");
        }
        host = std::string(rest.substr(1, close - 1));
        ports = rest.substr(close + 2);
    } else {
        auto colon = rest.rfind(':');
        if (colon == std::string_view::npos)
            return fail("expected HOST:PORT");
        host = std::string(rest.substr(0, colon));
        ports = rest.substr(colon + 1);
    }
    socklen_t length = 0;
    if (!testbed::makeAddress(host, 0, length))
        return fail("not an IP address: " + host);
    double first = 0;
    double last = 0;
    auto dash = ports.find('-');
    if (!parseNumber(ports.substr(0, dash), first) ||
        (dash != std::string_view::npos && !parseNumber(ports.substr(dash + 1), last))) {
        return fail("bad port");
    }
    if (dash == std::string_view::npos)
        last = first;
    if (first < 0 || last > 65535 || last < first || first != static_cast<int>(first) ||
        last != static_cast<int>(last)) {
        return fail("ports must be whole numbers from 0 to 65535, low to high");
    }

    EchoFaults faults;
    while (!options.empty()) {
        auto comma = options.find(',');
        auto item = options.substr(0, comma);
        options = comma == std::string_view::npos ? std::string_view() : options.substr(comma + 1);
        auto equals = item.find('=');
        auto key = item.substr(0, equals);
        double value = 0;
        if (equals == std::string_view::npos) {
            if (key == "duplicate")
                faults.duplicate = true;
            else if (key == "reorder")
                faults.reorder = true;
            else if (key == "garbage")
                faults.garbage = true;
            else if (key == "other-port")
                faults.otherPort = true;
            else
                return fail("unknown option " + std::string(key));
            continue;
        }
        if (!parseNumber(item.substr(equals + 1), value) || value < 0) {
            return fail("bad value for " + std::string(key));
        }
        if (key == "delay")
            faults.delaySeconds = value / 1000;
        else if (key == "jitter")
            faults.jitterSeconds = value / 1000;
        else if (key == "late")
            faults.lateSeconds = value / 1000;
        else if (key == "loss" && value <= 1)
            faults.loss = value;
        else if (key == "junk")
            faults.junkFlood = static_cast<int>(value);
        else
            return fail("unknown option or value " + std::string(item));
    }
    std::vector<EchoEndpointConfig> result;
    for (int port = static_cast<int>(first); port <= static_cast<int>(last); ++port) {
        result.push_back({host, static_cast<uint16_t>(port), faults});
    }
    return result;
}

}  // namespace lmkit
