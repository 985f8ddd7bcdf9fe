#include "lmkit/nodes/ProxySpeedTest.hpp"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/IPAddressString.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/Localized.hpp"

namespace lmkit {

namespace {

// The address family the socket reports for IPv6 sources.
constexpr int kFamilyIPv6 = AF_INET6;

// The token as the request header carries it: the whole text must be a base-10 number, which is
// then cut to its low 32 bits.
std::optional<std::uint32_t> parseToken(const std::string& text) {
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || end != text.c_str() + text.size())
        return std::nullopt;
    return static_cast<std::uint32_t>(static_cast<unsigned long long>(value));
}

void putBigEndian16(std::vector<std::uint8_t>& out, std::size_t at, std::uint16_t value) {
    out[at] = static_cast<std::uint8_t>(value >> 8);
    out[at + 1] = static_cast<std::uint8_t>(value);
}

void putBigEndian32(std::vector<std::uint8_t>& out, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        out[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

}  // namespace

// The socket's delegate, held weakly by the socket; it holds the test weakly. Dropping it
// silences the socket, so closes of our own (stop, time-out) report nothing.
class ProxySpeedTest::SocketEvents : public UdpSocketDelegate {
  public:
    explicit SocketEvents(std::weak_ptr<ProxySpeedTest> owner) : owner_(std::move(owner)) {}
    void udpSocketDidReceiveData(UdpSocket&, const Datagram& datagram) override {
        if (auto owner = owner_.lock())
            owner->didReceiveData(datagram);
    }
    void udpSocketDidClose(UdpSocket& socket, const std::optional<Error>& error) override {
        if (auto owner = owner_.lock())
            owner->didClose(socket, error);
    }

  private:
    std::weak_ptr<ProxySpeedTest> owner_;
};

// Creation.

ProxySpeedTest::ProxySpeedTest(double interval, std::int64_t count, std::string proxyAddress,
                               std::int64_t proxyPort, std::string proxyToken)
    : timeInternvalOfPerPacket_(interval),
      sendPacketCount_(count),
      dataProcessQueue_(DispatchQueue::serial(
          fmt::format("ProxySpeedTest.dataProcessQueue.{}", static_cast<const void*>(this)))),
      proxyAddress_(std::move(proxyAddress)),
      proxyPort_(proxyPort),
      proxyToken_(std::move(proxyToken)) {}

std::shared_ptr<ProxySpeedTest> ProxySpeedTest::create(
    double timeInternvalOfPerPacket, std::int64_t sendPacketCount, long /*bindedInterfaceType*/,
    std::string proxyAddress, std::int64_t proxyPort, std::string proxyToken) {
    if (sendPacketCount == 0 || proxyToken.empty() || proxyAddress.empty() ||
        timeInternvalOfPerPacket < 0) {
        return nullptr;
    }
    return std::shared_ptr<ProxySpeedTest>(
        new ProxySpeedTest(timeInternvalOfPerPacket, sendPacketCount, std::move(proxyAddress),
                           proxyPort, std::move(proxyToken)));
}

ProxySpeedTest::~ProxySpeedTest() {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        if (sendPacketTimer_)
            sendPacketTimer_->invalidate();
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        socket = std::move(udpSocket_);
        socketEvents_.reset();
    }
    if (socket)
        socket->close();
}

// Accessors.

std::string ProxySpeedTest::proxyAddress() const {
    std::lock_guard guard(mutex_);
    return proxyAddress_;
}
std::int64_t ProxySpeedTest::proxyPort() const {
    std::lock_guard guard(mutex_);
    return proxyPort_;
}
std::string ProxySpeedTest::proxyToken() const {
    std::lock_guard guard(mutex_);
    return proxyToken_;
}
std::string ProxySpeedTest::targetAddress() const {
    std::lock_guard guard(mutex_);
    return targetAddress_;
}
std::int64_t ProxySpeedTest::targetPort() const {
    std::lock_guard guard(mutex_);
    return targetPort_;
}
std::int64_t ProxySpeedTest::sentPacketNumber() const {
    std::lock_guard guard(mutex_);
    return sentPacketNumber_;
}
bool ProxySpeedTest::isIPV6() const {
    std::lock_guard guard(mutex_);
    return isIPV6_;
}
double ProxySpeedTest::firstPacketTimeStamp() const {
    std::lock_guard guard(mutex_);
    return firstPacketTimeStamp_;
}
std::shared_ptr<UdpSocket> ProxySpeedTest::udpSocket() const {
    std::lock_guard guard(mutex_);
    return udpSocket_;
}
std::shared_ptr<ProxySpeedTest::Callbacks> ProxySpeedTest::currentCallbacks() const {
    std::lock_guard guard(mutex_);
    return callbacks_;
}

// The socket.

bool ProxySpeedTest::isInterfaceUp() const {
    // The test never binds to an interface of its own (bindedInterfaceType is always 0).
    return true;
}

bool ProxySpeedTest::createUdpSocketIfHasError(std::optional<Error>* error) {
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_)
            return true;
    }
    auto events = std::make_shared<SocketEvents>(weak_from_this());
    auto socket = UdpSocket::create(events, DispatchQueue::global(QoS::Default));
    bool configured = configUdpSocketIfHasError(*socket, error);
    if (!configured && error) {
        socket->close();
        return false;
    }
    std::lock_guard guard(mutex_);
    if (udpSocket_) {
        // Another start made one meanwhile; keep that one.
        socket->close();
        return configured;
    }
    udpSocket_ = std::move(socket);
    socketEvents_ = std::move(events);
    return configured;
}

bool ProxySpeedTest::configUdpSocketIfHasError(UdpSocket& socket, std::optional<Error>* error) {
    long type = bindedInterfaceType();
    Error failure;
    // One reading decides whether the interface is usable and which one is bound.
    auto binding = VPNNetworkStatusMonitor::sharedMonitor().bindingForInterfaceType(type);
    if (!binding.usable) {
        if (error)
            *error = Error::withDescription(
                kErrorDomain, kErrorInterfaceDown,
                type == kInterfaceWiFi ? kWiFiDownDescription : kWWANDownDescription);
        return false;
    }
    bool bound = binding.interfaceName ? socket.bindToPort(0, *binding.interfaceName, &failure)
                                       : socket.bindToPort(0, &failure);
    if (bound && socket.beginReceiving(&failure))
        return true;
    if (error)
        *error = failure;
    return false;
}

void ProxySpeedTest::closeUdpSocket() {
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        socket = std::move(udpSocket_);
        socketEvents_.reset();
    }
    if (socket)
        socket->close();
}

// Starting and stopping.

void ProxySpeedTest::speedTestToTargetAddress(const std::string& targetAddress,
                                              std::int64_t targetPort, SuccessBlock success,
                                              FailureBlock failureBlock) {
    std::optional<Error> error;
    if (!createUdpSocketIfHasError(&error) || error) {
        if (failureBlock)
            failureBlock(error);
        return;
    }
    auto callbacks = std::make_shared<Callbacks>();
    callbacks->success = std::move(success);
    callbacks->failure = std::move(failureBlock);
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = ++generation_;
    }
    dataProcessQueue_.async([weak = weak_from_this(), generation, callbacks = std::move(callbacks),
                             targetAddress, targetPort]() mutable {
        if (auto self = weak.lock())
            self->startTest(generation, std::move(callbacks), std::move(targetAddress), targetPort);
    });
}

void ProxySpeedTest::startTest(std::uint64_t generation, std::shared_ptr<Callbacks> callbacks,
                               std::string targetAddress, std::int64_t targetPort) {
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;  // stopped (or restarted) before it began
        callbacks_ = std::move(callbacks);
        targetAddress_ = std::move(targetAddress);
        targetPort_ = targetPort;
        sentPacketNumber_ = 0;
        sentStamps_.clear();
        answeredStamps_.clear();
        lateReplies_ = 0;
        duplicateReplies_ = 0;
        // firstPacketTimeStamp_ stays: a later test on this object keeps the first one's origin.
    }
    delaysContainer_.removeAllObjects();
    computingStatus_.store(kStatusIdle);
    sendPacketUsingTimerIfNeeded();
}

void ProxySpeedTest::stop() {
    std::shared_ptr<Callbacks> callbacks;
    {
        std::lock_guard guard(mutex_);
        ++generation_;
        callbacks = std::move(callbacks_);
    }
    closeUdpSocket();
    stopSendPacketTimer();
    if (callbacks) {
        std::lock_guard guard(callbacks->mutex);
        callbacks->success = nullptr;
        callbacks->failure = nullptr;
    }
}

// Sending.

void ProxySpeedTest::sendPacketUsingTimerIfNeeded() {
    if (timeInternvalOfPerPacket_ <= 0) {
        sendDataToHost(proxyAddress(), proxyPort(), sendPacketCount_);
        return;
    }
    stopSendPacketTimer();
    // The first datagram leaves one interval after the start, not at once.
    auto timer = WeakTimer::scheduledTimer<ProxySpeedTest>(
        timeInternvalOfPerPacket_, weak_from_this(),
        [](ProxySpeedTest& test, WeakTimer&) { test.sendData(); }, true,
        DispatchQueue::global(QoS::UserInitiated));
    std::lock_guard guard(mutex_);
    sendPacketTimer_ = std::move(timer);
}

void ProxySpeedTest::sendData() {
    sendDataToHost(proxyAddress(), proxyPort(), 1);
}

void ProxySpeedTest::sendDataToHost(const std::string& host, std::int64_t port,
                                    std::int64_t repeatTime) {
    std::shared_ptr<UdpSocket> socket;
    double origin;
    {
        std::lock_guard guard(mutex_);
        if (firstPacketTimeStamp_ == 0)
            firstPacketTimeStamp_ = Clock::nowMilliseconds();
        origin = firstPacketTimeStamp_;
        socket = udpSocket_;
    }
    bool allSent = false;
    for (std::int64_t i = 0; i < repeatTime; ++i) {
        auto stamp = static_cast<std::int64_t>(Clock::nowMilliseconds() - origin);
        std::string text = std::to_string(stamp);
        {
            std::lock_guard guard(mutex_);
            ++sentStamps_[stamp];
        }
        auto datagram = socksifyWithData(std::vector<std::uint8_t>(text.begin(), text.end()));
        if (datagram && socket)
            socket->sendData(*datagram, host, static_cast<std::uint16_t>(port & 0xFFFF),
                             static_cast<long>(i));
        // Counted even when nothing could be built: the deadline must come all the same.
        std::lock_guard guard(mutex_);
        allSent = ++sentPacketNumber_ == sendPacketCount_;
    }
    if (allSent) {
        stopSendPacketTimer();
        setupPacketRecvTimer();
    }
}

std::optional<std::vector<std::uint8_t>> ProxySpeedTest::socksifyWithData(
    const std::optional<std::vector<std::uint8_t>>& data) const {
    if (!data)
        return std::nullopt;
    std::string token;
    std::string target;
    std::int64_t targetPort;
    std::shared_ptr<UdpSocket> socket;
    {
        std::lock_guard guard(mutex_);
        token = proxyToken_;
        target = targetAddress_;
        targetPort = targetPort_;
        socket = udpSocket_;
    }
    auto tokenValue = parseToken(token);
    if (!tokenValue)
        return std::nullopt;
    std::vector<std::uint8_t> datagram(kRequestHeaderSize + data->size(), 0);
    // 0x00 0x01 where standard SOCKS5 has a zero reserved word: the proxies expect it.
    datagram[0] = 0x00;
    datagram[1] = 0x01;
    datagram[2] = 0x00;  // FRAG
    datagram[3] = 0x01;  // ATYP: IPv4
    in_addr address{};
    if (inet_pton(AF_INET, target.c_str(), &address) == 1)
        std::memcpy(datagram.data() + 4, &address.s_addr, 4);  // already in network order
    putBigEndian16(datagram, 8, static_cast<std::uint16_t>(targetPort & 0xFFFF));
    putBigEndian32(datagram, 10, *tokenValue);
    putBigEndian16(datagram, 14, socket ? socket->localPort() : 0);
    std::copy(data->begin(), data->end(), datagram.begin() + kRequestHeaderSize);
    return datagram;
}

std::optional<std::vector<std::uint8_t>> ProxySpeedTest::unsocksifyWithData(
    const std::uint8_t* data, std::size_t size, std::string* host, std::uint16_t* port) {
    // Nothing to read a FRAG or ATYP from: as good as a reply without an address.
    if (size < 4) {
        log::error("socks5 udp:missing ipv4 address");
        return std::nullopt;
    }
    if (data[2] != 0x00) {
        log::error("socks5 udp:unexpected frag");
        return std::nullopt;
    }
    if (data[3] != 0x01) {
        log::error("socks address type is not ipv4");
        return std::nullopt;
    }
    // Shorter than the whole reply header: the address may be there, the payload offset is not.
    if (size < kReplyHeaderSize) {
        log::error("socks5 udp:missing ipv4 address");
        return std::nullopt;
    }
    if (host) {
        char text[INET_ADDRSTRLEN] = {};
        in_addr address{};
        std::memcpy(&address.s_addr, data + 4, 4);
        inet_ntop(AF_INET, &address, text, sizeof text);
        *host = text;
    }
    if (port)
        *port = static_cast<std::uint16_t>((data[8] << 8) | data[9]);
    return std::vector<std::uint8_t>(data + kReplyHeaderSize, data + size);
}

// The receive deadline.

void ProxySpeedTest::setupPacketRecvTimer() {
    stopPacketRecvTimeoutTimer();
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = generation_;
    }
    // A plain delayed task: it cannot be cancelled, so the handler decides by the status.
    DispatchQueue::main().asyncAfter(kPacketReceiveTimeout, [weak = weak_from_this(), generation] {
        if (auto self = weak.lock())
            self->packetReceiveTimeoutHandler(generation);
    });
}

void ProxySpeedTest::packetReceiveTimeoutHandler(std::uint64_t generation) {
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;  // the deadline of a stopped or earlier test
    }
    long status = computingStatus_.load();
    if (status == kStatusIdle) {
        log::error("recv timeout, all udp packets lost.");
        closeUdpSocket();
        callFailureBlock(Error::withDescription(kErrorDomain, kErrorTimeout, kTimeoutDescription));
    } else if (status == kStatusReceiving) {
        long expected = kStatusReceiving;
        // Statistics that finished meanwhile (status 3) are not turned back to 2.
        if (computingStatus_.compare_exchange_strong(expected, kStatusTimedOut)) {
            dataProcessQueue_.async([weak = weak_from_this()] {
                if (auto self = weak.lock())
                    self->doStatistics();
            });
        }
    }
}

void ProxySpeedTest::stopSendPacketTimer() {
    std::shared_ptr<WeakTimer> timer;
    {
        std::lock_guard guard(mutex_);
        timer = std::move(sendPacketTimer_);
    }
    if (timer)
        timer->invalidate();
}

void ProxySpeedTest::stopPacketRecvTimeoutTimer() {
    std::shared_ptr<WeakTimer> timer;
    {
        std::lock_guard guard(mutex_);
        timer = std::move(packetRecvTimer_);
    }
    if (timer)
        timer->invalidate();
}

// Receiving.

void ProxySpeedTest::didReceiveData(const Datagram& datagram) {
    const auto& address = datagram.source;
    std::string replyHost;
    std::uint16_t replyPort = 0;
    auto payload = unsocksifyWithData(datagram.data, &replyHost, &replyPort);
    if (computingStatus_.load() == kStatusTimedOut) {
        log::error("because udp has timeout, stop recv.");
        if (payload)
            lateReplies_.fetch_add(1);
        return;
    }
    if (!payload || payload->empty())
        return;
    std::string text(payload->begin(), payload->end());
    if (!probe::isValidUtf8(text))
        return;
    if (!ipaddress::isAllDigits(text)) {
        log::error(fmt::format("time from server:{} is not all digits", text));
        return;
    }
    double stamp = std::strtod(text.c_str(), nullptr);
    if (stamp < 0) {
        log::error(fmt::format("invalid time({}) from server", text));
        return;
    }
    // The kernel's arrival stamp where there is one, not the moment this queue read it.
    double delay = datagram.receiveTime - (stamp + firstPacketTimeStamp());
    if (delay < 0)
        return;
    if (address.host.empty() || address.port == 0) {
        log::error("host and port id invalid");
        return;
    }
    {
        // A path that duplicates datagrams: counted beside the loss, as ping(8) counts them.
        std::lock_guard guard(mutex_);
        auto echoed = static_cast<std::int64_t>(stamp);
        if (++answeredStamps_[echoed] > sentStamps_[echoed])
            duplicateReplies_.fetch_add(1);
    }
    long idle = kStatusIdle;
    computingStatus_.compare_exchange_strong(idle, kStatusReceiving);
    if (address.family == kFamilyIPv6) {
        {
            std::lock_guard guard(mutex_);
            isIPV6_ = true;
        }
        // Behind an address-translating network the proxy's IPv4 address comes back embedded.
        if (auto v4 = ipaddress::convert2IPV4Address(address.host))
            computeDelay(delay, *v4, address.port);
    } else {
        computeDelay(delay, address.host, address.port);
    }
}

void ProxySpeedTest::computeDelay(double delay, const std::string&, std::uint16_t) {
    dataProcessQueue_.async([weak = weak_from_this(), delay] {
        auto self = weak.lock();
        if (!self)
            return;
        self->delaysContainer_.addObject(delay);
        if (static_cast<std::int64_t>(self->delaysContainer_.count()) >= self->sendPacketCount_)
            self->doStatistics();
    });
}

// Statistics.

void ProxySpeedTest::doStatistics() {
    if (computingStatus_.exchange(kStatusFinished) == kStatusFinished)
        return;
    stopPacketRecvTimeoutTimer();
    auto delays = delaysContainer_.immutableArray();
    // Single precision, as the figures have always been reported; the difference is taken as
    // an unsigned number.
    auto missing =
        static_cast<std::uint64_t>(sendPacketCount_ - static_cast<std::int64_t>(delays.size()));
    double loss =
        static_cast<double>(static_cast<float>(missing) / static_cast<float>(sendPacketCount_));
    double average = computeAvgOfNumbers(delays);
    if (average == 0) {
        callFailureBlock(Error::withDescription(kErrorDomain, kErrorZeroAverage,
                                                localizedString(kEmptyNodesKey)));
        return;
    }
    auto callbacks = currentCallbacks();
    if (!callbacks)
        return;
    {
        std::lock_guard guard(callbacks->mutex);
        if (!callbacks->success)
            return;
    }
    double reported = static_cast<double>(static_cast<float>(average));
    DispatchQueue::main().async([callbacks, reported, loss] {
        SuccessBlock success;
        {
            std::lock_guard guard(callbacks->mutex);
            success = std::move(callbacks->success);
            callbacks->success = nullptr;
            callbacks->failure = nullptr;
        }
        if (success)
            success(reported, loss);
    });
}

double ProxySpeedTest::calculateAverageOfNumbers(const std::vector<double>& numbers) {
    if (numbers.empty())
        return 0;
    double sum = 0;
    for (double number : numbers)
        sum += number;
    return sum / static_cast<double>(numbers.size());
}

double ProxySpeedTest::computeAvgOfNumbers(const std::vector<double>& numbers) {
    if (numbers.empty())
        return 0;
    if (numbers.size() <= 5)
        return calculateAverageOfNumbers(numbers);
    double max = numbers.front();
    double min = numbers.front();
    double sum = 0;
    std::size_t count = 0;
    for (double number : numbers) {
        sum += number;
        ++count;
    }
    for (double number : numbers) {
        if (number > max)
            max = number;
        if (number < min)
            min = number;
    }
    // Exactly one maximum and one minimum leave, however many equal values there are.
    return count > 2 ? (sum - max - min) / static_cast<double>(count - 2) : 0;
}

// Failures and the socket's end.

void ProxySpeedTest::callFailureBlock(std::optional<Error> error) {
    auto callbacks = currentCallbacks();
    if (!callbacks)
        return;
    DispatchQueue::main().async([callbacks, error = std::move(error)] {
        FailureBlock failure;
        {
            std::lock_guard guard(callbacks->mutex);
            failure = std::move(callbacks->failure);
            callbacks->success = nullptr;
            callbacks->failure = nullptr;
        }
        if (failure)
            failure(error);
    });
}

bool ProxySpeedTest::isNoBufferSpaceAvailbaleError(const std::optional<Error>& error) {
    return error && error->code == ENOBUFS;
}

void ProxySpeedTest::didClose(UdpSocket& socket, const std::optional<Error>& error) {
    {
        std::lock_guard guard(mutex_);
        // A socket that never became the test's own (it failed its set-up, or another start
        // made one first) ends nothing.
        if (udpSocket_.get() != &socket)
            return;
        udpSocket_.reset();
        socketEvents_.reset();
    }
    // Kept as a hook: a full send buffer ends the test like any other close.
    (void)isNoBufferSpaceAvailbaleError(error);
    if (!error) {
        callFailureBlock(std::nullopt);
        return;
    }
    callFailureBlock(
        error->userInfo.empty()
            ? Error::withDescription(kErrorDomain, kErrorSocketClosed, kDidCloseDescription)
            : Error(kErrorDomain, kErrorSocketClosed, error->userInfo));
}

}  // namespace lmkit
