#pragma once
// A kit socket's delegate that records every event, for tests that send and receive datagrams
// through real sockets.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lmkit/platform/UdpSocket.hpp"

namespace lmkit::testing {

struct ReceivedDatagram {
    std::string text;
    SocketAddress from;
    double receivedAt = 0;  // Clock milliseconds
};

/// Records every event, checking that each arrives on the delegate queue and none after close;
/// an echoing recorder sends every datagram back to its sender.
class DatagramRecorder : public UdpSocketDelegate {
  public:
    explicit DatagramRecorder(DispatchQueue queue, bool echo = false)
        : queue_(queue), echo_(echo) {}

    void udpSocketDidReceiveData(UdpSocket& socket, const Datagram& datagram) override {
        const auto& data = datagram.data;
        const auto& from = datagram.source;
        check();
        if (echo_)
            socket.sendData(data, from.host, from.port, 0);
        std::lock_guard lock(mutex_);
        received_.push_back({std::string(data.begin(), data.end()), from, datagram.receiveTime});
    }
    void udpSocketDidNotSendData(UdpSocket&, long tag, const Error& error) override {
        check();
        std::lock_guard lock(mutex_);
        notSent_.emplace_back(tag, error);
    }
    void udpSocketDidClose(UdpSocket&, const std::optional<Error>& error) override {
        check();
        std::lock_guard lock(mutex_);
        ++closes_;
        closeError_ = error;
    }

    std::vector<ReceivedDatagram> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return received_.size();
    }
    std::vector<std::pair<long, Error>> notSent() const {
        std::lock_guard lock(mutex_);
        return notSent_;
    }
    int closes() const {
        std::lock_guard lock(mutex_);
        return closes_;
    }
    std::optional<Error> closeError() const {
        std::lock_guard lock(mutex_);
        return closeError_;
    }
    int misplaced() const { return misplaced_; }

  private:
    void check() {
        if (!queue_.isCurrent())
            ++misplaced_;
        std::lock_guard lock(mutex_);
        if (closes_ > 0)
            ++misplaced_;
    }

    DispatchQueue queue_;
    bool echo_;
    mutable std::mutex mutex_;
    std::vector<ReceivedDatagram> received_;
    std::vector<std::pair<long, Error>> notSent_;
    int closes_ = 0;
    std::optional<Error> closeError_;
    std::atomic<int> misplaced_{0};
};

/// A receiving socket on its own delegate queue, with its recorder.
struct UdpEndpoint {
    std::shared_ptr<DatagramRecorder> recorder;
    std::shared_ptr<UdpSocket> socket;

    void send(const std::string& text, const SocketAddress& to) const {
        socket->sendData(text, to.host, to.port, 0);
    }
};

inline UdpEndpoint udpEndpoint(const std::string& label, bool echo = false) {
    auto queue = DispatchQueue::serial(label);
    UdpEndpoint endpoint;
    endpoint.recorder = std::make_shared<DatagramRecorder>(queue, echo);
    endpoint.socket = UdpSocket::create(endpoint.recorder, queue);
    Error error;
    EXPECT_TRUE(endpoint.socket->beginReceiving(&error)) << error.localizedDescription();
    return endpoint;
}

}  // namespace lmkit::testing
