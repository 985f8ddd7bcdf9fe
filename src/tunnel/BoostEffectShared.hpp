#pragma once

// What the parts of the boost-effect result item (creation and scheduling, answers, reports)
// share.

#include <string>

#include "lmkit/foundation/Log.hpp"

namespace lmkit::boost_effect {

// The network kinds a speed test binds to.
inline constexpr int kWiFiKind = 1;
inline constexpr int kCellularKind = 2;
// A delay whose integer value reaches this is past the ceiling in the period statistics.
inline constexpr long kFirstDelayPastCeiling = 401;

inline void logTunnel(const std::string& text) {
    log::info(text, log::Stream::Tunnel);
}

}  // namespace lmkit::boost_effect
