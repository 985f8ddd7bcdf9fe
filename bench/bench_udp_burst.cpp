// A probe run's shape: one burst of probes to many echo endpoints, every reply at once.
// Compares the kit's UdpSocket (large buffer, batched draining, per-datagram events) with a
// plain blocking POSIX socket with the system's default buffer, read in a loop on its own
// thread. Prints replies received and time to the last reply for both, and their ratios.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "lmkit/platform/UdpSocket.hpp"
#include "lmkit/testbed/EchoServer.hpp"

using namespace lmkit;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kEndpoints = 200;
constexpr int kProbesPerEndpoint = 50;
constexpr int kTotal = kEndpoints * kProbesPerEndpoint;
// Replies still missing after this long are counted as lost.
constexpr auto kPatience = std::chrono::seconds(3);

struct Result {
    int received = 0;
    double milliseconds = 0;
};

class Counter : public UdpSocketDelegate {
  public:
    void udpSocketDidReceiveData(UdpSocket&, const Datagram&) override {
        ++received;
        last = Clock::now();
    }
    std::atomic<int> received{0};
    std::atomic<Clock::time_point> last{};
};

Result runKit(const std::vector<SocketAddress>& targets) {
    auto counter = std::make_shared<Counter>();
    auto socket = UdpSocket::create(counter, DispatchQueue::serial("bench.udp.kit"));
    socket->beginReceiving();
    auto start = Clock::now();
    for (int round = 0; round < kProbesPerEndpoint; ++round) {
        for (const auto& target : targets)
            socket->sendData(std::string_view("1234567890123"), target.host, target.port, round);
    }
    while (counter->received < kTotal && Clock::now() - start < kPatience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    socket->close();
    Result result;
    result.received = counter->received;
    result.milliseconds =
        std::chrono::duration<double, std::milli>(counter->last.load() - start).count();
    return result;
}

Result runPlain(const std::vector<SocketAddress>& targets) {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local);
    timeval timeout{0, 200000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::atomic<int> received{0};
    std::atomic<Clock::time_point> last{};
    std::atomic<bool> done{false};
    std::thread reader([&] {
        char buffer[2048];
        while (!done) {
            if (::recv(fd, buffer, sizeof buffer, 0) > 0) {
                ++received;
                last = Clock::now();
            }
        }
    });
    auto start = Clock::now();
    for (int round = 0; round < kProbesPerEndpoint; ++round) {
        for (const auto& target : targets) {
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(target.port);
            inet_pton(AF_INET, target.host.c_str(), &to.sin_addr);
            ::sendto(fd, "1234567890123", 13, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        }
    }
    while (received < kTotal && Clock::now() - start < kPatience) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    done = true;
    reader.join();
    ::close(fd);
    Result result;
    result.received = received;
    result.milliseconds = std::chrono::duration<double, std::milli>(last.load() - start).count();
    return result;
}

}  // namespace

int main() {
    std::vector<EchoEndpointConfig> endpoints;
    for (int i = 0; i < kEndpoints; ++i)
        endpoints.push_back({"127.0.0.1", 0, {}});
    Error error;
    auto server = EchoServer::start(endpoints, 1, &error);
    if (!server) {
        std::fprintf(stderr, "bench_udp_burst: %s\n", error.localizedDescription().c_str());
        return 1;
    }
    auto targets = server->endpoints();
    Result plain = runPlain(targets);
    Result kit = runKit(targets);
    std::printf("burst of %d probes to %d echo endpoints\n", kTotal, kEndpoints);
    std::printf("plain socket: %6d replies (%.1f%%) last after %.1f ms\n", plain.received,
                100.0 * plain.received / kTotal, plain.milliseconds);
    std::printf("UdpSocket:    %6d replies (%.1f%%) last after %.1f ms\n", kit.received,
                100.0 * kit.received / kTotal, kit.milliseconds);
    std::printf("ratio replies kit/plain: %.2f   ratio time kit/plain: %.2f\n",
                plain.received ? double(kit.received) / plain.received : 0.0,
                plain.milliseconds > 0 ? kit.milliseconds / plain.milliseconds : 0.0);
    return kit.received == kTotal ? 0 : 1;
}
