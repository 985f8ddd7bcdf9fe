#pragma once

#include <functional>

#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One alternative address of a node, for the carriers whose type codes it lists.
struct CarrierIPItem : Model<CarrierIPItem> {
    std::optional<std::vector<std::string>> carrierTypeCodes;
    std::optional<std::string> ip;

    static const std::vector<Property<CarrierIPItem>>& properties();
};

/// One acceleration node as the service delivers it, with the measurements the prober writes
/// back and the node's own scoring rules.
class AccNode : public Model<AccNode> {
  public:
    std::optional<std::string> identifier;
    std::optional<std::string> ip;
    std::optional<Number> port;
    std::optional<Number> tlsPort;
    std::optional<Number> netaskPort;  // UDP port of the node's echo service
    std::optional<std::string> pingServer;
    std::optional<std::vector<std::shared_ptr<CarrierIPItem>>> carrierIp;
    std::optional<std::string> sniIP;
    std::optional<Number> sniPort;
    std::optional<Number> sniCryptType;
    std::optional<Number> totalCount;
    std::optional<Number> onlineCount;
    std::optional<Number> ispWeight;  // percent
    std::optional<Number> rearDelay;  // ms, node to game server
    std::optional<Number> chartRearDelay;
    double delay = 0;  // measured, ms
    double delayScore = 0;
    double lossScore = 0;
    double loadScore = 0;
    double ispScore = 0;
    // Probe statistics; never part of the JSON form.
    double loss = 0;  // fraction 0..1
    double minDelay = 0;
    double maxDelay = 0;
    double avgDelay = 0;
    double deviation = 0;  // of the delays, ms (9999 when one of them is 0); explains the score

    /// Sum of the four partial scores.
    double score() const { return delayScore + lossScore + loadScore + ispScore; }

    /// The ip of the first carrier item listing `code`; nil for a nil or empty code or no match.
    std::optional<std::string> ipForCarrierTypeCode(const std::optional<std::string>& code) const;
    /// ipForCarrierTypeCode with the device's current carrier type code (nil without one).
    std::optional<std::string> ipForCurrentCarrierTypeCode() const;
    bool hasSniIP() const { return sniIP && !sniIP->empty(); }
    /// pingServer when non-empty, else ip when non-empty, else "".
    std::string safePingServer() const;

    /// ping − delay; 0 for a nil or zero delay, a nil ping or a delay above ping (a node with no
    /// measured reply earns nothing).
    static Number computeScoreOfDelay(const std::optional<Number>& delay,
                                      const std::shared_ptr<AccConfig>& accConfig);
    /// Classic: loss × (1 − loss) inside 0..1, else 0. With `newLossScore` (the stored general
    /// configuration's switch, which the selector reads once per run): max(0, loss2 −
    /// lossScale × loss²).
    static Number computeScoreOfLoss(const std::optional<Number>& loss,
                                     const std::shared_ptr<AccConfig>& accConfig,
                                     bool newLossScore = false);
    /// isp × ispWeight ÷ 100.
    Number computeScoreOfISPReferToAccConfig(const std::shared_ptr<AccConfig>& accConfig) const;
    /// Full load below the threshold share of capacity, falling linearly to 0 at capacity; 0
    /// above capacity or when the fall is not a number.
    Number computeScoreOfLoadReferToAccConfig(const std::shared_ptr<AccConfig>& accConfig) const;

    /// The one-line form used in selection logs.
    std::string description() const;

    /// Where the current carrier type code comes from (the network facts connect it); without a
    /// provider there is no code.
    static void setCarrierTypeCodeProvider(std::function<std::optional<std::string>()> provider);

    static const std::vector<Property<AccNode>>& properties();
};

}  // namespace lmkit
