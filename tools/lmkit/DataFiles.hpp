#pragma once

#include <string>

#include "lmkit/foundation/Data.hpp"

namespace lmkit::tool {

/// Reads the whole file, or standard input when `path` is empty or "-". Throws Failure with a
/// line that names the file when it cannot be read.
Data readInput(const std::string& path);

/// Writes `data` to the file, or to standard output when `path` is empty or "-". Throws
/// Failure when it cannot be written.
void writeOutput(const std::string& path, const Data& data);

}  // namespace lmkit::tool
