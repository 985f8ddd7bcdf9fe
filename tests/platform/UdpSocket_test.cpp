// test-labels: concurrency
#include "lmkit/platform/UdpSocket.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "support/DatagramRecorder.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

using lmkit::testing::udpEndpoint;
using Received = lmkit::testing::ReceivedDatagram;
using Recorder = lmkit::testing::DatagramRecorder;

TEST(UdpSocket, EchoRoundTripOverIPv4AndIPv6ReportsTheSourceFamily) {
    auto echo = udpEndpoint("test.udp.echo", true);
    auto client = udpEndpoint("test.udp.client");
    ASSERT_NE(echo.socket->localPort(), 0);
    EXPECT_GE(client.socket->socketFD(), 0);

    EXPECT_TRUE(client.socket->sendData(std::string_view("1234"), "127.0.0.1",
                                        echo.socket->localPort(), 1));
    EXPECT_TRUE(
        client.socket->sendData(std::string_view("5678"), "::1", echo.socket->localPort(), 2));
    ASSERT_TRUE(waitFor([&] { return client.recorder->received().size() == 2; }));

    auto replies = client.recorder->received();
    std::sort(replies.begin(), replies.end(),
              [](const Received& a, const Received& b) { return a.text < b.text; });
    EXPECT_EQ(replies[0].text, "1234");
    EXPECT_EQ(replies[0].from.host, "127.0.0.1");
    EXPECT_EQ(replies[0].from.family, AF_INET);
    EXPECT_EQ(replies[0].from.port, echo.socket->localPort());
    EXPECT_EQ(replies[1].text, "5678");
    EXPECT_EQ(replies[1].from.host, "::1");
    EXPECT_EQ(replies[1].from.family, AF_INET6);
    EXPECT_TRUE(client.recorder->notSent().empty());
    EXPECT_EQ(client.recorder->misplaced(), 0);
    EXPECT_EQ(echo.recorder->misplaced(), 0);
}

TEST(UdpSocket, BurstArrivesCompleteAndInOrderAsSeparateEvents) {
    constexpr int kCount = 5000;
    auto receiver = udpEndpoint("test.udp.burst.receiver");
    auto sender = udpEndpoint("test.udp.burst.sender");
    for (int i = 0; i < kCount; ++i) {
        sender.socket->sendData(std::to_string(i), "127.0.0.1", receiver.socket->localPort(), i);
    }
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() == kCount; }, 20.0))
        << "received " << receiver.recorder->received().size();
    auto received = receiver.recorder->received();
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(received[i].text, std::to_string(i));

    // In one call, datagrams to one destination may leave as one message that the kernel splits:
    // runs of equal sizes, shorter, longer and empty ones in between, each must arrive whole.
    std::vector<OutgoingDatagram> batch;
    for (int i = 0; i < kCount; ++i) {
        std::string text = i % 500 == 499 ? "" : std::to_string(i) + std::string((i / 3) % 4, '.');
        batch.push_back({text, "127.0.0.1", receiver.socket->localPort(), i});
    }
    sender.socket->sendDatagrams(batch);
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() == 2 * kCount; }, 20.0))
        << "received " << receiver.recorder->received().size();
    received = receiver.recorder->received();
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(received[kCount + i].text, batch[i].payload);

    // Datagrams past a read slot's first part continue in its second, up to the largest.
    std::vector<std::string> longer;
    for (std::size_t size :
         {std::size_t{511}, std::size_t{512}, std::size_t{513}, UdpSocket::kMaxDatagramBytes}) {
        std::string text(size, ' ');
        for (std::size_t j = 0; j < size; ++j)
            text[j] = static_cast<char>('a' + (j * 7 + size) % 26);
        sender.socket->sendData(text, "127.0.0.1", receiver.socket->localPort(), 0);
        longer.push_back(text);
    }
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() == 2 * kCount + 4; }));
    received = receiver.recorder->received();
    for (std::size_t i = 0; i < longer.size(); ++i)
        EXPECT_EQ(received[2 * kCount + i].text, longer[i]) << longer[i].size() << " bytes";

    // A path that refuses split messages (here: no UDP checksums) gets the datagrams one by one.
    int on = 1;
    ASSERT_EQ(setsockopt(sender.socket->socketFD(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);
    batch.resize(100);
    for (auto& datagram : batch)
        datagram.payload = "same size";
    sender.socket->sendDatagrams(batch);
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() == 2 * kCount + 104; }))
        << "received " << receiver.recorder->received().size();
    EXPECT_EQ(receiver.recorder->received().back().text, "same size");
    EXPECT_TRUE(sender.recorder->notSent().empty());
}

TEST(UdpSocket, NamesResolveOffTheCallerAndFailuresCarryTheTag) {
    auto echo = udpEndpoint("test.udp.names.echo", true);
    auto client = udpEndpoint("test.udp.names.client");
    client.socket->sendData(std::string_view("a"), "no-such-host.invalid", 9, 41);
    client.socket->sendData(std::string_view("b"), "no-such-host.invalid", 9, 42);
    client.socket->sendData(std::string_view("c"), "localhost", echo.socket->localPort(), 43);
    ASSERT_TRUE(waitFor([&] { return client.recorder->notSent().size() == 2; }));
    auto failures = client.recorder->notSent();
    EXPECT_EQ(failures[0].first, 41);
    EXPECT_EQ(failures[1].first, 42);
    EXPECT_EQ(failures[0].second.domain, UdpSocket::kResolveErrorDomain);
    EXPECT_NE(failures[0].second.localizedDescription().find("no-such-host.invalid"),
              std::string::npos);
    ASSERT_TRUE(waitFor([&] { return client.recorder->received().size() == 1; }));
    EXPECT_EQ(client.recorder->received()[0].text, "c");
}

TEST(UdpSocket, InjectedSendFailuresKeepThePlatformErrno) {
    auto receiver = udpEndpoint("test.udp.inject.receiver");
    auto sender = udpEndpoint("test.udp.inject.sender");
    sender.socket->failNextSendsForTesting(2, ENOBUFS);
    for (int i = 0; i < 3; ++i) {
        sender.socket->sendData(std::to_string(i), "127.0.0.1", receiver.socket->localPort(), i);
    }
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() == 1; }));
    EXPECT_EQ(receiver.recorder->received()[0].text, "2");
    ASSERT_TRUE(waitFor([&] { return sender.recorder->notSent().size() == 2; }));
    for (const auto& [tag, error] : sender.recorder->notSent()) {
        EXPECT_EQ(error.code, ENOBUFS);
        EXPECT_EQ(error.domain, UdpSocket::kPosixErrorDomain);
    }
    EXPECT_EQ(sender.recorder->notSent()[1].first, 1);
}

TEST(UdpSocket, CloseFromManyThreadsReportsOnceAndIsTheLastEvent) {
    auto receiver = udpEndpoint("test.udp.close.receiver");
    auto sender = udpEndpoint("test.udp.close.sender");
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        for (int i = 0; !stop; ++i) {
            sender.socket->sendData(std::to_string(i), "127.0.0.1", receiver.socket->localPort(),
                                    i);
        }
    });
    ASSERT_TRUE(waitFor([&] { return receiver.recorder->received().size() > 100; }));
    std::vector<std::thread> closers;
    for (int i = 0; i < 4; ++i) {
        closers.emplace_back([&, i] {
            receiver.socket->closeWithError(Error::withDescription("test", i, "closing"));
        });
    }
    for (auto& closer : closers)
        closer.join();
    stop = true;
    flood.join();

    ASSERT_TRUE(waitFor([&] { return receiver.recorder->closes() == 1; }));
    EXPECT_TRUE(receiver.socket->isClosed());
    EXPECT_EQ(receiver.socket->localPort(), 0);
    EXPECT_EQ(receiver.socket->socketFD(), -1);
    EXPECT_FALSE(receiver.socket->sendData(std::string_view("x"), "127.0.0.1", 9, 0));
    ASSERT_TRUE(receiver.recorder->closeError().has_value());
    EXPECT_EQ(receiver.recorder->closeError()->domain, "test");

    auto countAfterClose = receiver.recorder->received().size();
    receiver.socket->close();
    receiver.socket->delegateQueue().sync([] {});
    EXPECT_EQ(receiver.recorder->received().size(), countAfterClose);
    EXPECT_EQ(receiver.recorder->closes(), 1);
    EXPECT_EQ(receiver.recorder->misplaced(), 0);

    sender.socket->close();
    ASSERT_TRUE(waitFor([&] { return sender.recorder->closes() == 1; }));
    EXPECT_FALSE(sender.recorder->closeError().has_value());
}

TEST(UdpSocket, ReleasedDelegateGetsNothingAndTheSocketKeepsWorking) {
    auto receiver = udpEndpoint("test.udp.release.receiver");
    auto sender = udpEndpoint("test.udp.release.sender");
    std::weak_ptr<Recorder> weak = receiver.recorder;
    for (int i = 0; i < 200; ++i) {
        sender.socket->sendData(std::to_string(i), "127.0.0.1", receiver.socket->localPort(), i);
        if (i == 100)
            receiver.recorder.reset();
    }
    EXPECT_TRUE(weak.expired());
    for (int i = 0; i < 200; ++i) {
        sender.socket->sendData(std::to_string(i), "127.0.0.1", receiver.socket->localPort(), i);
    }
    receiver.socket->close();
    receiver.socket.reset();
    sender.socket.reset();  // destroyed without close: no event, no crash
    EXPECT_EQ(sender.recorder->closes(), 0);
}

TEST(UdpSocket, BindsToANamedInterfaceOrExplainsWhyNot) {
    auto queue = DispatchQueue::serial("test.udp.bind");
    auto recorder = std::make_shared<Recorder>(queue);
    auto socket = UdpSocket::create(recorder, queue);
    Error error;
    EXPECT_FALSE(socket->bindToPort(0, "nosuch0", &error));
    EXPECT_EQ(error.domain, UdpSocket::kSocketErrorDomain);
    EXPECT_EQ(error.code, UdpSocket::kNoInterfaceAddress);
    EXPECT_NE(error.localizedDescription().find("nosuch0"), std::string::npos);

    ASSERT_TRUE(socket->bindToPort(0, "lo", &error)) << error.localizedDescription();
    EXPECT_FALSE(socket->bindToPort(0, &error));  // a second bind is refused
    ASSERT_TRUE(socket->beginReceiving(&error));
    auto echo = udpEndpoint("test.udp.bind.echo", true);
    socket->sendData(std::string_view("via lo"), "127.0.0.1", echo.socket->localPort(), 7);
    ASSERT_TRUE(waitFor([&] { return recorder->received().size() == 1; }));
    EXPECT_EQ(recorder->received()[0].text, "via lo");

    int seenFd = -2;
    bool onQueue = false;
    socket->perform([&](int fd) {
        seenFd = fd;
        onQueue = true;
    });
    EXPECT_TRUE(onQueue);
    EXPECT_EQ(seenFd, socket->socketFD());
    EXPECT_GE(socket->setReceiveBufferSize(4 * 1024 * 1024), 1024 * 1024);
    EXPECT_GE(socket->setSendBufferSize(131072), 131072);
}
