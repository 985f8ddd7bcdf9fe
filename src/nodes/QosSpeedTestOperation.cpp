#include "lmkit/nodes/QosSpeedTestOperation.hpp"

#include <charconv>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/platform/DispatchGroup.hpp"

namespace lmkit {

QosSpeedTestOperation::QosSpeedTestOperation(std::vector<std::string> addresses)
    : addresses_(std::move(addresses)),
      queue_(DispatchQueue::serial(
          fmt::format("QosSpeedTestOperation.{}", static_cast<const void*>(this)))) {}

std::shared_ptr<QosSpeedTestOperation> QosSpeedTestOperation::create(
    std::vector<std::string> addresses) {
    return std::shared_ptr<QosSpeedTestOperation>(new QosSpeedTestOperation(std::move(addresses)));
}

std::string QosSpeedTestOperation::sendDataPrefix() const {
    std::lock_guard guard(mutex_);
    return sendDataPrefix_;
}

void QosSpeedTestOperation::setSendDataPrefix(const std::string& prefix) {
    std::lock_guard guard(mutex_);
    sendDataPrefix_ = prefix;
}

std::vector<std::shared_ptr<NodeSelector>> QosSpeedTestOperation::nodeSelectors() const {
    std::lock_guard guard(mutex_);
    return nodeSelectors_;
}

std::vector<std::shared_ptr<NodeInfo>> QosSpeedTestOperation::results() const {
    std::lock_guard guard(mutex_);
    return resultItems_;
}

double QosSpeedTestOperation::timeBudget() const {
    return static_cast<double>(addresses_.size()) * kBudgetPerAddress + kBudgetSlack;
}

bool QosSpeedTestOperation::splitAddress(const std::string& address, std::string& host,
                                         long& port) {
    port = 0;
    std::string_view text(address);
    std::string_view portText;
    if (!text.empty() && text.front() == '[') {
        auto close = text.find(']');
        if (close == std::string_view::npos)
            return false;
        host = std::string(text.substr(1, close - 1));
        auto rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':')
                return false;
            portText = rest.substr(1);
            if (portText.empty())
                return false;
        }
    } else if (auto colon = text.find(':'); colon != std::string_view::npos &&
                                            text.find(':', colon + 1) == std::string_view::npos) {
        host = std::string(text.substr(0, colon));
        portText = text.substr(colon + 1);
        if (portText.empty())
            return false;
    } else {
        host = address;  // a host name, IPv4 literal or bare IPv6 literal
    }
    if (host.empty())
        return false;
    if (!portText.empty()) {
        auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
        if (ec != std::errc() || end != portText.data() + portText.size() || port < 1 ||
            port > 65535)
            return false;
    }
    return true;
}

void QosSpeedTestOperation::start() {
    if (!claimStart())
        return;
    if (isCancelled()) {
        setFinished(true);
        return;
    }
    setExecuting(true);
    queue_.async([self = std::static_pointer_cast<QosSpeedTestOperation>(shared_from_this())] {
        self->main();
    });
}

void QosSpeedTestOperation::main() {
    // Without addresses the operation stays executing: callers always hand it servers.
    if (addresses_.empty())
        return;

    auto group = std::make_shared<DispatchGroup>();
    auto weak = std::weak_ptr<QosSpeedTestOperation>(
        std::static_pointer_cast<QosSpeedTestOperation>(shared_from_this()));
    std::string prefix = sendDataPrefix();
    for (const auto& address : addresses_) {
        auto selector = NodeSelector::create();
        selector->setSendDataPrefix(prefix);
        {
            std::lock_guard guard(mutex_);
            nodeSelectors_.push_back(selector);
        }
        group->enter();
        auto info = std::make_shared<NodeInfo>();
        info->ip = address;
        std::string host;
        long port = 0;
        if (!splitAddress(address, host, port)) {
            log::error(fmt::format("[QosSpeedTest] not an address: \"{}\"", address));
            group->leave();
            continue;
        }
        // Each callback leaves the group once: a selector reports at most once per run.
        auto success = [weak, group, info](const std::shared_ptr<AccNode>&, double delay,
                                           double loss, double deviation) {
            info->setDelay(Number(delay));
            info->setLoss(Number(loss));
            info->setDeviation(Number(deviation));
            if (auto self = weak.lock()) {
                std::lock_guard guard(self->mutex_);
                self->resultItems_.push_back(info);
            }
            group->leave();
        };
        auto failure = [group, address](const Error& error) {
            log::debug(fmt::format("[QosSpeedTest] {} failed: {}", address, describe(error)));
            group->leave();
        };
        selector->testPingFromAddress(host, port > 0 ? port : probe::kDefaultProbePort,
                                      std::move(success), std::move(failure));
    }

    if (!group->wait(timeBudget()))
        log::info(
            fmt::format("[QosSpeedTest] budget of {:.2f}s spent before every address "
                        "reported",
                        timeBudget()));
    cleanup();
    finishExecuting();
}

void QosSpeedTestOperation::cleanup() {
    for (const auto& selector : nodeSelectors())
        selector->stop();
}

}  // namespace lmkit
