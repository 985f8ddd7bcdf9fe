#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One measured node result as it is exchanged with the tunnel side. The getters normalise:
/// delay and deviation round to whole numbers (half away from zero); loss is cut down to two
/// decimals (0.4567 reads 0.45). The JSON form carries the normalised values.
class NodeInfo : public Model<NodeInfo> {
  public:
    std::optional<std::string> ip = std::string();

    Number delay() const;
    Number loss() const;
    Number deviation() const;
    void setDelay(Number value) { delay_ = value; }
    void setLoss(Number value) { loss_ = value; }
    void setDeviation(Number value) { deviation_ = value; }

    static const std::vector<Property<NodeInfo>>& properties();

  private:
    std::optional<Number> delay_ = Number(0);
    std::optional<Number> loss_ = Number(0);
    std::optional<Number> deviation_ = Number(0);
};

/// The plain address pair handed to the engine when no full node record exists.
struct BaseNode : Model<BaseNode> {
    std::optional<std::string> ip;
    std::optional<Number> port;

    static const std::vector<Property<BaseNode>>& properties();
};

/// One measurement outcome collected by the network monitor.
struct NodeSelectorResult {
    double delay = 0;        // milliseconds
    double lossPercent = 0;  // a fraction 0..1
};

}  // namespace lmkit
