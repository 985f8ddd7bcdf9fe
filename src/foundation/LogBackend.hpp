#pragma once

#include "lmkit/foundation/Log.hpp"

namespace lmkit::log::detail {

/// Writes the message to its stream's files (formatted by LogFormatter) and, when enabled, to
/// standard error.
void deliverToStreams(const LogMessage& message);

/// Whether a file or standard error would take a message of `flag`.
bool streamsAccept(unsigned flag);

/// Closes the streams' open files (the next message reopens them).
void closeStreams();

}  // namespace lmkit::log::detail
