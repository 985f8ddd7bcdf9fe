// test-labels: concurrency
#include "lmkit/testbed/Socks5Relay.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

namespace {

constexpr std::uint32_t kToken = 4242;

/// A client of its own: a fresh socket (so a fresh association at the relay) that sends one
/// request through the relay to `target` and waits for the wrapped echo.
class Client {
  public:
    Client() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        timeval wait{2, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// The payload that came back, or empty when nothing did within two seconds.
    std::string ask(const SocketAddress& relay, const SocketAddress& target,
                    const std::string& payload) {
        std::array<std::uint8_t, 16> header{0, 1, 0, 1};
        in_addr address{};
        inet_pton(AF_INET, target.host.c_str(), &address);
        std::memcpy(header.data() + 4, &address, 4);
        header[8] = static_cast<std::uint8_t>(target.port >> 8);
        header[9] = static_cast<std::uint8_t>(target.port);
        for (int i = 0; i < 4; ++i)
            header[10 + i] = static_cast<std::uint8_t>(kToken >> (24 - 8 * i));
        std::string request(header.begin(), header.end());
        request += payload;
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(relay.port);
        inet_pton(AF_INET, relay.host.c_str(), &to.sin_addr);
        ::sendto(fd_, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&to),
                 sizeof to);
        std::array<char, 2048> reply{};
        ssize_t size = ::recv(fd_, reply.data(), reply.size(), 0);
        if (size < 14)
            return {};
        return std::string(reply.data() + 14, static_cast<std::size_t>(size) - 14);
    }

  private:
    int fd_ = -1;
};

struct RelayAndEcho {
    explicit RelayAndEcho(Socks5RelayConfig config) {
        Error error;
        echo = EchoServer::start({EchoEndpointConfig{}}, 1, &error);
        EXPECT_TRUE(echo) << error.localizedDescription();
        config.token = kToken;
        relay = Socks5Relay::start(config, 1, &error);
        EXPECT_TRUE(relay) << error.localizedDescription();
    }
    std::unique_ptr<EchoServer> echo;
    std::unique_ptr<Socks5Relay> relay;
};

}  // namespace

TEST(Socks5Relay, ServesOneThousandClientsOneAfterAnother) {
    // One upstream socket per client, capped: at the cap the least recently used client makes
    // room, and the log says so.
    log::Capture capture;
    RelayAndEcho servers({});
    ASSERT_TRUE(servers.echo && servers.relay);
    int answered = 0;
    for (int i = 0; i < 1000; ++i) {
        Client client;
        const std::string payload = "client " + std::to_string(i);
        answered +=
            client.ask(servers.relay->endpoint(), servers.echo->endpoints()[0], payload) == payload;
    }
    EXPECT_EQ(answered, 1000);
    // The system may hand a closed client's port to a later one, which then finds its
    // association still open: evictions are at most one per client beyond the cap.
    EXPECT_EQ(servers.relay->associationCount(), Socks5RelayConfig::kDefaultMaxAssociations);
    EXPECT_GT(servers.relay->associationsEvicted(), 0u);
    EXPECT_LE(servers.relay->associationsEvicted(),
              1000 - Socks5RelayConfig::kDefaultMaxAssociations);
    EXPECT_TRUE(capture.contains("closing the least recently used"));
}

TEST(Socks5Relay, IdleAssociationsCloseAndTheClientIsServedAgain) {
    log::Capture capture;
    Socks5RelayConfig config;
    config.idleTimeoutSeconds = 0.05;
    RelayAndEcho servers(config);
    ASSERT_TRUE(servers.echo && servers.relay);
    const auto relay = servers.relay->endpoint();
    const auto target = servers.echo->endpoints()[0];

    Client client;
    EXPECT_EQ(client.ask(relay, target, "before"), "before");
    ASSERT_TRUE(waitFor([&] { return servers.relay->associationsExpired() == 1; }));
    EXPECT_EQ(servers.relay->associationCount(), 0u);
    EXPECT_TRUE(capture.contains("idle for 0.05 s: closed"));
    EXPECT_EQ(client.ask(relay, target, "after"), "after");
}
