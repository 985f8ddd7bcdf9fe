#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/UdpSocket.hpp"

namespace lmkit::testing {

/// A UDP peer on 127.0.0.1 whose answers a test writes: it records every datagram it receives
/// and sends back whatever `answer` returns for it (any number of datagrams, possibly none).
class ScriptedPeer : public UdpSocketDelegate {
  public:
    using Answer = std::function<std::vector<std::vector<uint8_t>>(const std::vector<uint8_t>&)>;

    static std::shared_ptr<ScriptedPeer> start(Answer answer) {
        auto peer = std::make_shared<ScriptedPeer>();
        peer->answer_ = std::move(answer);
        peer->socket_ = UdpSocket::create(peer, DispatchQueue::serial("test.scripted-peer"));
        peer->socket_->bindToPort(0);
        peer->socket_->beginReceiving();
        return peer;
    }
    ~ScriptedPeer() override {
        if (socket_)
            socket_->close();
    }

    uint16_t port() const { return socket_->localPort(); }
    std::vector<std::vector<uint8_t>> received() const {
        std::lock_guard guard(mutex_);
        return received_;
    }
    std::size_t receivedCount() const {
        std::lock_guard guard(mutex_);
        return received_.size();
    }
    /// Sends `data` to the sender of the last datagram received.
    void sendToLastSender(const std::vector<uint8_t>& data) {
        SocketAddress to;
        {
            std::lock_guard guard(mutex_);
            to = lastSender_;
        }
        socket_->sendData(data, to.host, to.port, 0);
    }

    void udpSocketDidReceiveData(UdpSocket& socket, const Datagram& datagram) override {
        const auto& data = datagram.data;
        const auto& address = datagram.source;
        {
            std::lock_guard guard(mutex_);
            received_.push_back(data);
            lastSender_ = address;
        }
        for (const auto& reply : answer_(data))
            socket.sendData(reply, address.host, address.port, 0);
    }

  private:
    Answer answer_;
    std::shared_ptr<UdpSocket> socket_;
    mutable std::mutex mutex_;
    std::vector<std::vector<uint8_t>> received_;
    SocketAddress lastSender_;
};

inline std::vector<uint8_t> bytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

inline std::string text(const std::vector<uint8_t>& data) {
    return std::string(data.begin(), data.end());
}

}  // namespace lmkit::testing
