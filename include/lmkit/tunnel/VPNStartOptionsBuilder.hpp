#pragma once

// The app side of a tunnel start: everything the tunnel extension needs (the game, the chosen
// nodes, the relay logins, routing and DNS rules, ban lists, feature switches and buffer sizes)
// gathered into one VPNStartOptions record, whose JSON form travels with the start request.
//
//     VPNStartOptionsArguments args;
//     args.game = game;
//     args.acc = answer;
//     args.accNodes = chosen;                       // best first
//     args.enableDualChannel = true;
//     Error error;
//     auto options = VPNStartOptionsBuilder::optionsWithGame(args, &error);
//     // nullptr without an error: the answer has no account, or no node was chosen.
//     // nullptr with `error` set: the dictionary did not convert (and a line was logged).

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/RegularExpression.hpp"
#include "lmkit/models/VPNStartOptions.hpp"

namespace lmkit {

/// The builder's arguments, one field per argument of the builder, under the same names.
struct VPNStartOptionsArguments {
    /// The game being accelerated. A nil game gives a game dictionary of nils and zeros.
    std::shared_ptr<const Game> game;
    /// The service's acceleration answer. Without it (or without its account) there is no build.
    std::shared_ptr<const AccAPIResponseObject> acc;
    /// The nodes chosen for the main link, best first. Empty: no build.
    std::vector<std::shared_ptr<AccNode>> accNodes;
    /// The nodes of the second path; may be empty.
    std::vector<std::shared_ptr<AccNode>> multipathNodes;
    /// Measured direct round-trip times, passed through untouched.
    std::optional<std::map<std::string, Json>> directRTTs;
    /// Where the tunnel finds its IP data file.
    std::optional<std::string> ipDataPath;
    /// Domains never routed through the tunnel, passed through untouched.
    std::optional<std::vector<std::string>> domainBlacklist;
    /// The same as patterns; the tunnel receives each expression's pattern text.
    std::vector<RegularExpression> domainRegexBlacklist;
    /// How long the tunnel keeps its buffer, in seconds; not above 0 selects the default.
    double vpnBufferDuration = 0;
    long delayMode = 0;
    bool enableDualChannel = false;
    bool enableTCPEncryption = false;
    bool mainlinkUseTLS = false;
    bool forceMainlinkTLS = false;
    bool tcpChannelUseTLS = false;
    bool enableOldRouterDivider = false;
    bool enableFDTUNReadMode = false;
    bool fallbackToUserDefaultsSync = false;
    /// Whether the answer's GRP configuration is handed on at all.
    bool enableGRP = false;
};

/// Builds the start options. No operation throws.
class VPNStartOptionsBuilder {
  public:
    /// The buffer duration used when the caller gives none (seconds).
    static constexpr int kDefaultVPNBufferDuration = 3600;
    /// The relay ports a node without its own gets: no TLS port, and the relays' echo port.
    static constexpr int kDefaultTLSPort = 0;
    static constexpr int kDefaultNetaskPort = 1081;

    /// The start options, or nullptr. Without an account in the answer or without a chosen node
    /// the result is nullptr and `error` stays untouched; when the gathered dictionary does not
    /// convert, `error` receives the adapter's error and an error line is logged.
    static std::shared_ptr<VPNStartOptions> optionsWithGame(const VPNStartOptionsArguments& args,
                                                            Error* error = nullptr);

    /// The gathered dictionary of the 46 keys, in the order the builder writes them; nil when
    /// the answer has no account or no node was chosen.
    static std::optional<Json> dictionaryWithGame(const VPNStartOptionsArguments& args);

    /// The last step: the dictionary converted into the record. On failure `error` receives the
    /// adapter's error, "VPNStartOptions dict:<dictionary>, converting to model error" is logged
    /// at error level, and the result is nullptr.
    static std::shared_ptr<VPNStartOptions> optionsFromDictionary(const Json& dictionary,
                                                                  Error* error = nullptr);
};

}  // namespace lmkit
