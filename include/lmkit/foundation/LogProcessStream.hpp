#pragma once

#include "lmkit/foundation/Log.hpp"

namespace lmkit::log {

/// The stream a process's own lines (those logged to Stream::App, the default) go to. The app
/// keeps Stream::App ("op" files in its own folder); the tunnel process sets Stream::Tunnel as it
/// starts, so its lines land in the tunnel's files in the shared container, where the app and a
/// user reading the app's logs find them. Lines logged to the API or tunnel stream keep theirs.
void setProcessStream(Stream stream);
Stream processStream();

}  // namespace lmkit::log
