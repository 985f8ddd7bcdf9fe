#pragma once

#include "lmkit/foundation/Log.hpp"

namespace lmkit::log::detail {

/// Writes the message to its stream's files (formatted by LogFormatter) and, when enabled, to
/// standard error.
void deliverToStreams(const LogMessage& message);

}  // namespace lmkit::log::detail
