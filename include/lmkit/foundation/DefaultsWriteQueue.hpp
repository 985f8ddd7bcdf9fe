#pragma once

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// The one serial queue on which every AppDefault and AppMTLDefault of the process writes, so
/// that writes to the shared suite land in the order they were made. Its label is
/// "com.lmkit.userDefault.queue". Tests wait for pending writes with `sync` on it.
///
/// A normal exit (return from main, exit()) first waits, for a few seconds at most, until every
/// write queued before it is on disk: a write whose call returned survives the exit. A crash, a
/// kill -9 or _Exit skips that wait and loses the writes still queued (at most the ones made
/// just before it); every write already run is committed and survives.
DispatchQueue defaultsWriteQueue();

}  // namespace lmkit
