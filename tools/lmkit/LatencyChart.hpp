#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "WatchHistory.hpp"

namespace lmkit::tool {

/// A smokeping-style latency chart of a watch's history: one panel per node, time across, the
/// round's delay as a line coloured by its loss (green none, through yellow and orange, to red
/// for all lost), the spread of the round's probes (fastest to slowest) as a band behind it,
/// and every switch of the chosen node as a dashed mark.
struct LatencyChart {
    static constexpr int kWidth = 960;
    static constexpr int kHeaderHeight = 48;
    static constexpr int kPanelHeight = 150;
    static constexpr int kFooterHeight = 28;

    /// The picture's height for `nodes` panels.
    static int heightFor(std::size_t nodes);

    /// Draws `rounds` into `path`: SVG or PNG by its extension. False and `error` when there is
    /// nothing to draw or the file cannot be written.
    static bool draw(const std::vector<WatchRound>& rounds, const std::filesystem::path& path,
                     std::string& error);
};

}  // namespace lmkit::tool
