#pragma once

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// The one serial queue on which every AppDefault and AppMTLDefault of the process writes, so
/// that writes to the shared suite land in the order they were made. Its label is
/// "com.lmkit.userDefault.queue". Tests wait for pending writes with `sync` on it.
DispatchQueue defaultsWriteQueue();

}  // namespace lmkit
