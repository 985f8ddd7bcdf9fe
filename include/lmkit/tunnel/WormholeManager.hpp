#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "lmkit/models/SocksInfo.hpp"
#include "lmkit/models/VPNMessageDelayQuery.hpp"
#include "lmkit/models/VPNMessageLossQuery.hpp"
#include "lmkit/platform/Wormhole.hpp"
#include "lmkit/tunnel/WormholeMessageObject.hpp"

namespace lmkit {

/// Identifiers of the message kinds that travel between the app and the tunnel.
inline constexpr const char* kWormholeCmdTunnel = "WormholeCmdTunnel";
inline constexpr const char* kWormholeCmdPickedNode = "WormholeCmdPickedNode";
inline constexpr const char* kWormholeCmdNetworkChange = "WormholeCmdNetworkChange";
inline constexpr const char* kWormholeCmdDelayQuery = "WormholeCmdDelayQuery";
inline constexpr const char* kWormholeCmdDelayResponse = "WormholeCmdDelayResponse";
inline constexpr const char* kWormholeCmdLossQuery = "WormholeCmdLossQuery";
inline constexpr const char* kWormholeCmdLossResponse = "WormholeCmdLossResponse";

/// Keys of the tunnel status dictionary.
inline constexpr const char* kWormholeTunnelMsgKey = "WormholeTunnelMsgKey";
inline constexpr const char* kWormholeTunnelErrorKey = "WormholeTunnelErrorKey";

/// The name of the channel's directory inside the app-group container.
inline constexpr const char* kWormholeDirectoryName = "Wormhole";

/// The one place through which the app and the tunnel post typed messages to each other and
/// register for the other side's messages. Each kind has a fixed identifier, a pass operation and
/// a listen operation; a listen handler gets only objects of its kind's class, anything else is
/// dropped.
///
/// Handlers run on the channel's serial queue (wormhole()->queue()). Answers to a delay or loss
/// query go to the callback stored by the last query of that kind, for as long as it stays stored
/// (until the next query replaces it); only when none is stored do they reach the listen handler.
/// Handlers hold the manager weakly: once it is released, nothing more is delivered.
class WormholeManager : public std::enable_shared_from_this<WormholeManager> {
  public:
    using MessageListener = std::function<void(const WormholeMessageObject& object)>;
    using TunnelHandler = std::function<void(const std::string& message, const std::string& error)>;
    using PickedNodeHandler = std::function<void(std::shared_ptr<SocksInfo> node)>;
    using NetworkChangeHandler = std::function<void()>;
    using DelayQueryHandler = std::function<void(std::shared_ptr<VPNMessageDelayQuery> query)>;
    using DelayResponseHandler =
        std::function<void(std::shared_ptr<VPNMessageDelayResponse> response)>;
    using LossQueryHandler = std::function<void(std::shared_ptr<VPNMessageLossQuery> query)>;
    using LossResponseHandler =
        std::function<void(std::shared_ptr<VPNMessageLossResponse> response)>;

    /// The process's manager over "<app-group container>/Wormhole", made on first use.
    static std::shared_ptr<WormholeManager> sharedManager();

    /// A manager of its own over "<containerDirectory>/Wormhole" (tests, tools). It registers for
    /// the two response kinds at once, so answers reach the stored callbacks from the start.
    static std::shared_ptr<WormholeManager> create(const std::filesystem::path& containerDirectory);

    WormholeManager(const WormholeManager&) = delete;
    WormholeManager& operator=(const WormholeManager&) = delete;

    const std::shared_ptr<Wormhole>& wormhole() const { return wormhole_; }

    DelayResponseHandler delayResponseBlock() const;
    void setDelayResponseBlock(DelayResponseHandler block);
    LossResponseHandler lossResponseBlock() const;
    void setLossResponseBlock(LossResponseHandler block);

    /// Passes `object` under `cmd`; false (and an error line in the log) when it could not be
    /// archived or written. Every pass operation ends here.
    bool executeCmd(const std::string& cmd, const WormholeMessageObject& object);
    /// Registers `listener` for the objects that arrive under `cmd`, replacing an earlier one.
    /// Every listen operation ends here.
    void listenForMessageWithCmd(const std::string& cmd, MessageListener listener);
    /// The newest object stored under `cmd`, whoever passed it; nullopt when there is none or
    /// it is not an archive.
    std::optional<WormholeMessageObject> messageWithCmd(const std::string& cmd) const;

    /// The tunnel's status text and error text; nil texts travel as "".
    void passMessageForTunnel(const std::optional<std::string>& message,
                              const std::optional<std::string>& error);
    void passMessageForPickedNode(const SocksInfo& node);
    void passMessageForNetworkChange();
    /// Stores `delayResponseBlock` (replacing the one of an earlier query), then passes `query`.
    void passMessageForDelayQuery(const VPNMessageDelayQuery& query,
                                  DelayResponseHandler delayResponseBlock);
    void passMessageForDelayResponse(const VPNMessageDelayResponse& response);
    /// Stores `lossResponseBlock` (replacing the one of an earlier query), then passes `query`.
    void passMessageForLossQuery(const VPNMessageLossQuery& query,
                                 LossResponseHandler lossResponseBlock);
    void passMessageForLossResponse(const VPNMessageLossResponse& response);

    void listenForMessageOfTunnel(TunnelHandler handler);
    void listenForMessageOfPickedNode(PickedNodeHandler handler);
    void listenForMessageOfNetworkChange(NetworkChangeHandler handler);
    void listenForMessageOfDelayQuery(DelayQueryHandler handler);
    void listenForMessageOfDelayResponse(DelayResponseHandler handler);
    void listenForMessageOfLossQuery(LossQueryHandler handler);
    void listenForMessageOfLossResponse(LossResponseHandler handler);

  private:
    explicit WormholeManager(std::shared_ptr<Wormhole> wormhole);

    template <class T>
    bool passRecord(const std::string& cmd, const T& record);

    std::shared_ptr<Wormhole> wormhole_;
    // Set by the querying side, read on the channel's queue; the mutex only keeps the
    // std::function copies whole.
    mutable std::mutex blocksMutex_;
    DelayResponseHandler delayResponseBlock_;  // guarded by blocksMutex_
    LossResponseHandler lossResponseBlock_;    // guarded by blocksMutex_
};

}  // namespace lmkit
