#pragma once

#include "lmkit/foundation/Log.hpp"

namespace lmkit::log::detail {

/// Writes the message to its stream's files (formatted by LogFormatter) and, when enabled, to
/// standard error.
void deliverToStreams(const LogMessage& message);

/// Closes the streams' open files (the next message reopens them).
void closeStreams();

}  // namespace lmkit::log::detail
