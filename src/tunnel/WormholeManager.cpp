#include "lmkit/tunnel/WormholeManager.hpp"

#include "lmkit/foundation/Log.hpp"
#include "lmkit/platform/AppGroup.hpp"

namespace lmkit {

namespace {

constexpr const char* kLogPrefix = "[Wormhole] ";

std::string textOf(const Json& dictionary, const char* key) {
    auto found = dictionary.find(key);
    if (found != dictionary.end() && found->is_string())
        return found->get<std::string>();
    return {};
}

// The handler of one listen operation for records of type T: objects of another class, or whose
// dictionary does not make a T, are dropped.
template <class T>
WormholeManager::MessageListener recordListener(std::function<void(std::shared_ptr<T>)> handler) {
    return [handler = std::move(handler)](const WormholeMessageObject& object) {
        std::string error;
        auto record = object.as<T>(error);
        if (record && handler)
            handler(std::move(record));
    };
}

}  // namespace

std::shared_ptr<WormholeManager> WormholeManager::sharedManager() {
    static std::shared_ptr<WormholeManager> shared = create(AppGroup::containerDirectory());
    return shared;
}

std::shared_ptr<WormholeManager> WormholeManager::create(
    const std::filesystem::path& containerDirectory) {
    auto wormhole = std::make_shared<Wormhole>(containerDirectory, kWormholeDirectoryName,
                                               WormholeTransitingType::CoordinatedFile);
    wormhole->setDiagnosticHandler(
        [](const std::string& line) { log::warning(kLogPrefix + line); });
    // A file that does not unarchive is no message: the one before it is still the newest.
    wormhole->setMessageCheck([](const Wormhole::Bytes& data) {
        std::string error;
        return WormholeMessageObject::unarchive(data, error).has_value();
    });
    std::shared_ptr<WormholeManager> manager(new WormholeManager(std::move(wormhole)));
    manager->listenForMessageOfDelayResponse(nullptr);
    manager->listenForMessageOfLossResponse(nullptr);
    return manager;
}

WormholeManager::WormholeManager(std::shared_ptr<Wormhole> wormhole)
    : wormhole_(std::move(wormhole)) {}

WormholeManager::DelayResponseHandler WormholeManager::delayResponseBlock() const {
    std::lock_guard lock(blocksMutex_);
    return delayResponseBlock_;
}

void WormholeManager::setDelayResponseBlock(DelayResponseHandler block) {
    std::lock_guard lock(blocksMutex_);
    delayResponseBlock_ = std::move(block);
}

WormholeManager::LossResponseHandler WormholeManager::lossResponseBlock() const {
    std::lock_guard lock(blocksMutex_);
    return lossResponseBlock_;
}

void WormholeManager::setLossResponseBlock(LossResponseHandler block) {
    std::lock_guard lock(blocksMutex_);
    lossResponseBlock_ = std::move(block);
}

bool WormholeManager::executeCmd(const std::string& cmd, const WormholeMessageObject& object) {
    std::string error;
    auto data = object.archivedData(error);
    if (!data) {
        log::error(kLogPrefix + std::string("cannot archive the ") + object.className + " for " +
                   cmd + ": " + error);
        return false;
    }
    if (!wormhole_->passMessageData(cmd, *data)) {
        log::error(kLogPrefix + std::string("cannot pass the message ") + cmd + " into " +
                   wormhole_->directory().string());
        return false;
    }
    return true;
}

void WormholeManager::listenForMessageWithCmd(const std::string& cmd, MessageListener listener) {
    wormhole_->listenForMessageWithIdentifier(cmd, [cmd, listener = std::move(listener)](
                                                       const Wormhole::Bytes& data) {
        std::string error;
        auto object = WormholeMessageObject::unarchive(data, error);
        if (!object) {
            log::error(kLogPrefix + std::string("dropped a message under ") + cmd + ": " + error);
            return;
        }
        if (listener)
            listener(*object);
    });
}

std::optional<WormholeMessageObject> WormholeManager::messageWithCmd(const std::string& cmd) const {
    auto data = wormhole_->messageWithIdentifier(cmd);
    if (!data)
        return std::nullopt;
    std::string error;
    auto object = WormholeMessageObject::unarchive(*data, error);
    if (!object)
        log::error(kLogPrefix + std::string("the stored message under ") + cmd +
                   " is unreadable: " + error);
    return object;
}

template <class T>
bool WormholeManager::passRecord(const std::string& cmd, const T& record) {
    std::string error;
    auto object = WormholeMessageObject::record(record, error);
    if (!object) {
        log::error(kLogPrefix + std::string("cannot pass a record under ") + cmd + ": " + error);
        return false;
    }
    return executeCmd(cmd, *object);
}

void WormholeManager::passMessageForTunnel(const std::optional<std::string>& message,
                                           const std::optional<std::string>& error) {
    Json dictionary = Json::object();
    dictionary[kWormholeTunnelMsgKey] = message.value_or("");
    dictionary[kWormholeTunnelErrorKey] = error.value_or("");
    executeCmd(kWormholeCmdTunnel, WormholeMessageObject::dictionary(std::move(dictionary)));
}

void WormholeManager::passMessageForPickedNode(const SocksInfo& node) {
    passRecord(kWormholeCmdPickedNode, node);
}

void WormholeManager::passMessageForNetworkChange() {
    executeCmd(kWormholeCmdNetworkChange, WormholeMessageObject::dictionary(Json::object()));
}

void WormholeManager::passMessageForDelayQuery(const VPNMessageDelayQuery& query,
                                               DelayResponseHandler delayResponseBlock) {
    setDelayResponseBlock(std::move(delayResponseBlock));
    passRecord(kWormholeCmdDelayQuery, query);
}

void WormholeManager::passMessageForDelayResponse(const VPNMessageDelayResponse& response) {
    passRecord(kWormholeCmdDelayResponse, response);
}

void WormholeManager::passMessageForLossQuery(const VPNMessageLossQuery& query,
                                              LossResponseHandler lossResponseBlock) {
    setLossResponseBlock(std::move(lossResponseBlock));
    passRecord(kWormholeCmdLossQuery, query);
}

void WormholeManager::passMessageForLossResponse(const VPNMessageLossResponse& response) {
    passRecord(kWormholeCmdLossResponse, response);
}

void WormholeManager::listenForMessageOfTunnel(TunnelHandler handler) {
    listenForMessageWithCmd(kWormholeCmdTunnel,
                            [handler = std::move(handler)](const WormholeMessageObject& object) {
                                if (!object.isDictionary() || !handler)
                                    return;
                                handler(textOf(object.root, kWormholeTunnelMsgKey),
                                        textOf(object.root, kWormholeTunnelErrorKey));
                            });
}

void WormholeManager::listenForMessageOfPickedNode(PickedNodeHandler handler) {
    listenForMessageWithCmd(kWormholeCmdPickedNode, recordListener<SocksInfo>(std::move(handler)));
}

void WormholeManager::listenForMessageOfNetworkChange(NetworkChangeHandler handler) {
    // Any object under this identifier is a network change: its content carries nothing.
    listenForMessageWithCmd(kWormholeCmdNetworkChange,
                            [handler = std::move(handler)](const WormholeMessageObject&) {
                                if (handler)
                                    handler();
                            });
}

void WormholeManager::listenForMessageOfDelayQuery(DelayQueryHandler handler) {
    listenForMessageWithCmd(kWormholeCmdDelayQuery,
                            recordListener<VPNMessageDelayQuery>(std::move(handler)));
}

void WormholeManager::listenForMessageOfDelayResponse(DelayResponseHandler handler) {
    std::weak_ptr<WormholeManager> weak = weak_from_this();
    listenForMessageWithCmd(kWormholeCmdDelayResponse,
                            recordListener<VPNMessageDelayResponse>(
                                [weak, handler = std::move(handler)](
                                    std::shared_ptr<VPNMessageDelayResponse> response) {
                                    auto self = weak.lock();
                                    if (!self)
                                        return;
                                    if (auto stored = self->delayResponseBlock())
                                        stored(std::move(response));
                                    else if (handler)
                                        handler(std::move(response));
                                }));
}

void WormholeManager::listenForMessageOfLossQuery(LossQueryHandler handler) {
    listenForMessageWithCmd(kWormholeCmdLossQuery,
                            recordListener<VPNMessageLossQuery>(std::move(handler)));
}

void WormholeManager::listenForMessageOfLossResponse(LossResponseHandler handler) {
    std::weak_ptr<WormholeManager> weak = weak_from_this();
    listenForMessageWithCmd(
        kWormholeCmdLossResponse,
        recordListener<VPNMessageLossResponse>(
            [weak, handler = std::move(handler)](std::shared_ptr<VPNMessageLossResponse> response) {
                auto self = weak.lock();
                if (!self)
                    return;
                if (auto stored = self->lossResponseBlock())
                    stored(std::move(response));
                else if (handler)
                    handler(std::move(response));
            }));
}

}  // namespace lmkit
