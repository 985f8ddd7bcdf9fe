#pragma once

#include <cstdint>
#include <string>

namespace lmkit::tool {

/// A byte count given on the command line: decimal digits, optionally followed by K, M or G
/// (multiples of 1024). Throws Failure naming `option` when the text is not one or does not fit
/// in 64 bits; the message gives the allowed range in plain numbers.
std::uint64_t parseByteCount(const std::string& option, const std::string& text);

}  // namespace lmkit::tool
