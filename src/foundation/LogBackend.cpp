#include "foundation/LogBackend.hpp"

namespace lmkit::log::detail {

// The file streams arrive with LogFormatter and LogFileManager.
void deliverToStreams(const LogMessage&) {}

}  // namespace lmkit::log::detail
