#include "lmkit/platform/EchoServer.hpp"
#include "platform/SocketAddress.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstring>
#include <queue>
#include <random>
#include <system_error>
#include <thread>

namespace lmkit {

namespace {

constexpr const char* kErrorDomain = "EchoServerErrorDomain";
// Datagrams taken (and answered) per system call.
constexpr unsigned kBatch = 64;
constexpr size_t kMaxPayload = 65536;
// Each endpoint may face a burst of thousands of probes at once.
constexpr int kBufferBytes = 4 * 1024 * 1024;

using Clock = std::chrono::steady_clock;

Error failure(const std::string& text) {
    return Error::withDescription(kErrorDomain, 1, text);
}

using detail::makeAddress;

uint16_t boundPort(int fd) {
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    if (bound.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    }
    return ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

int openBound(const sockaddr_storage& address, socklen_t length, std::string* reason) {
    int fd = ::socket(address.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *reason = std::system_category().message(errno);
        return -1;
    }
    int size = kBufferBytes;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        *reason = std::system_category().message(errno);
        ::close(fd);
        return -1;
    }
    return fd;
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
        int otherFd = -1;  // the "other port" for replies from elsewhere
        std::mt19937_64 random;
        struct Held {
            sockaddr_storage to;
            socklen_t length;
            std::vector<uint8_t> payload;
        };
        std::optional<Held> held;  // reorder: the reply waiting for its successor
    };
    struct Scheduled {
        Clock::time_point due;
        uint64_t sequence;
        size_t endpoint;
        sockaddr_storage to;
        socklen_t length;
        std::vector<uint8_t> payload;
        bool operator>(const Scheduled& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };

    std::vector<Endpoint> endpoints;  // fixed after start; the fields change on the thread only
    int epollFd = -1;
    int wakeFd = -1;
    std::thread thread;
    std::atomic<bool> stopped{false};
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> sent{0};
    std::priority_queue<Scheduled, std::vector<Scheduled>, std::greater<>> schedule;
    uint64_t sequence = 0;
    std::vector<uint8_t> buffer;  // the thread's receive slots, kBatch of kMaxPayload

    ~Impl() {
        for (auto& endpoint : endpoints) {
            if (endpoint.fd >= 0)
                ::close(endpoint.fd);
            if (endpoint.otherFd >= 0)
                ::close(endpoint.otherFd);
        }
        if (epollFd >= 0)
            ::close(epollFd);
        if (wakeFd >= 0)
            ::close(wakeFd);
    }

    void transmit(Endpoint& endpoint, const sockaddr_storage& to, socklen_t length,
                  const std::vector<uint8_t>& payload) {
        int fd = endpoint.config.faults.otherPort ? endpoint.otherFd : endpoint.fd;
        if (::sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                     length) >= 0) {
            ++sent;
        }
    }

    /// Sends a reply now, applying the faults that shape what leaves.
    void reply(Endpoint& endpoint, const sockaddr_storage& to, socklen_t length,
               std::vector<uint8_t> payload) {
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
        transmit(endpoint, to, length, payload);
        if (faults.duplicate)
            transmit(endpoint, to, length, payload);
    }

    void handle(size_t index, const sockaddr_storage& from, socklen_t length,
                std::vector<uint8_t> payload) {
        ++received;
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
            reply(endpoint, from, length, std::move(payload));
            return;
        }
        auto due = Clock::now() +
                   std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(wait));
        schedule.push({due, sequence++, index, from, length, std::move(payload)});
    }

    void receiveFrom(size_t index) {
        if (buffer.empty())
            buffer.resize(kBatch * kMaxPayload);
        std::array<mmsghdr, kBatch> messages{};
        std::array<iovec, kBatch> vectors{};
        std::array<sockaddr_storage, kBatch> sources{};
        for (;;) {
            for (unsigned i = 0; i < kBatch; ++i) {
                vectors[i] = {buffer.data() + i * kMaxPayload, kMaxPayload};
                messages[i].msg_hdr = {};
                messages[i].msg_hdr.msg_iov = &vectors[i];
                messages[i].msg_hdr.msg_iovlen = 1;
                messages[i].msg_hdr.msg_name = &sources[i];
                messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
            }
            int count =
                recvmmsg(endpoints[index].fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
            if (count <= 0)
                return;
            const auto& faults = endpoints[index].config.faults;
            bool plain = !faults.garbage && !faults.reorder && !faults.duplicate &&
                         !faults.otherPort && faults.loss <= 0 && faults.junkFlood == 0 &&
                         faults.delaySeconds <= 0 && faults.jitterSeconds <= 0 &&
                         faults.lateSeconds <= 0;
            if (plain) {
                // The common case answers the whole batch with one system call: the same
                // buffers, addressed back to their senders.
                for (int i = 0; i < count; ++i)
                    vectors[i].iov_len = messages[i].msg_len;
                received += count;
                int done = 0;
                while (done < count) {
                    int n = sendmmsg(endpoints[index].fd, messages.data() + done, count - done, 0);
                    if (n <= 0)
                        break;
                    done += n;
                }
                sent += done;
            } else {
                for (int i = 0; i < count; ++i) {
                    const auto* begin = static_cast<const uint8_t*>(vectors[i].iov_base);
                    handle(index, sources[i], messages[i].msg_hdr.msg_namelen,
                           std::vector<uint8_t>(begin, begin + messages[i].msg_len));
                }
            }
            if (count < static_cast<int>(kBatch))
                return;
        }
    }

    void run() {
        std::array<epoll_event, 64> events{};
        while (!stopped) {
            int timeout = -1;
            if (!schedule.empty()) {
                auto wait =
                    std::chrono::ceil<std::chrono::milliseconds>(schedule.top().due - Clock::now());
                timeout = static_cast<int>(std::max<int64_t>(0, wait.count()));
            }
            int count =
                epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), timeout);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.u64 == UINT64_MAX)
                    continue;  // woken to stop
                receiveFrom(static_cast<size_t>(events[i].data.u64));
            }
            auto now = Clock::now();
            while (!schedule.empty() && schedule.top().due <= now) {
                auto item = schedule.top();
                schedule.pop();
                reply(endpoints[item.endpoint], item.to, item.length, std::move(item.payload));
            }
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
    impl->epollFd = epoll_create1(EPOLL_CLOEXEC);
    impl->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (impl->epollFd < 0 || impl->wakeFd < 0)
        return fail("cannot create the event loop");
    epoll_event wake{};
    wake.events = EPOLLIN;
    wake.data.u64 = UINT64_MAX;
    epoll_ctl(impl->epollFd, EPOLL_CTL_ADD, impl->wakeFd, &wake);

    for (size_t i = 0; i < endpoints.size(); ++i) {
        Impl::Endpoint endpoint;
        endpoint.config = endpoints[i];
        endpoint.random.seed(seed + i);
        socklen_t length = 0;
        auto address = makeAddress(endpoint.config.host, endpoint.config.port, length);
        if (!address)
            return fail("not an IP address: " + endpoint.config.host);
        std::string reason;
        endpoint.fd = openBound(*address, length, &reason);
        std::string where = endpoint.config.host + ":" + std::to_string(endpoint.config.port);
        if (endpoint.fd < 0)
            return fail("cannot listen on " + where + ": " + reason);
        endpoint.config.port = boundPort(endpoint.fd);
        if (endpoint.config.faults.otherPort) {
            auto other = makeAddress(endpoint.config.host, 0, length);
            endpoint.otherFd = openBound(*other, length, &reason);
            if (endpoint.otherFd < 0) {
                ::close(endpoint.fd);
                return fail("cannot open a second port on " + where + ": " + reason);
            }
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(impl->epollFd, EPOLL_CTL_ADD, endpoint.fd, &event);
        impl->endpoints.push_back(std::move(endpoint));
    }
    auto* raw = impl.get();
    impl->thread = std::thread([raw] { raw->run(); });
    return std::unique_ptr<EchoServer>(new EchoServer(std::move(impl)));
}

void EchoServer::stop() {
    if (!impl_ || impl_->stopped.exchange(true))
        return;
    uint64_t one = 1;
    [[maybe_unused]] auto ignored = ::write(impl_->wakeFd, &one, sizeof one);
    if (impl_->thread.joinable())
        impl_->thread.join();
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
    if (!makeAddress(host, 0, length))
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
