#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lmkit::tool {

/// What the demo's app side hands to its tunnel.
struct DemoRoadRequest {
    std::string startOptionsText;  // the start request, as the app sends it
    std::string gid;               // the game whose boost effect is asked for
    std::string gameServerHost;    // the direct path: the game server's echo
    std::uint16_t gameServerPort = 0;
    double measureSeconds = 3.5;  // how long the tunnel measures before the app asks
    long latestLimitCount = 6;    // samples asked for: the last few seconds
    std::function<void(const std::string& line)> progress;  // optional: what happens now
};

/// What the tunnel answered.
struct DemoRoadResult {
    std::string relayNode;  // the node the tunnel relays through
    std::string relay;      // "ip:port" of that node's echo, which the tunnel measured
    std::vector<double> directDelays;
    std::vector<double> relayDelays;
    double directDelay = 0;  // mean of the samples, ms
    double relayDelay = 0;
    int tunnelExitStatus = 0;
};

/// The app side of the road: makes a scratch app-group directory, starts this binary again as
/// the tunnel ("demo --tunnel-side DIR"), hands it the start options, waits for it to measure,
/// asks for the game's delays over the message channel, then stops and reaps the tunnel and
/// removes the directory. Throws Failure; nothing is left behind either way.
DemoRoadResult runDemoRoad(const DemoRoadRequest& request);

/// The tunnel side: decodes the start options found in `directory`, measures the direct path
/// (`gameServer`, "host:port") against the first relay until told to stop, and answers delay
/// queries. Returns the exit code.
int runDemoTunnelSide(const std::string& directory, const std::string& gameServer);

}  // namespace lmkit::tool
