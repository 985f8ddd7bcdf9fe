#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lmkit {

/// A byte buffer: what the kit encrypts, hashes, compresses and parses.
using Data = std::vector<std::uint8_t>;

/// Conversions between byte buffers and text.
namespace bytes {

/// The bytes of `text` (its UTF-8 encoding when the text is UTF-8).
Data toData(std::string_view text);

/// The buffer read as UTF-8 text; nil when it is not valid UTF-8.
std::optional<std::string> UTF8String(const Data& data);

/// Standard base64 with padding and without line breaks.
std::string base64EncodedString(const Data& data);

/// Decodes standard base64. Strict: any character outside the alphabet (line breaks and spaces
/// included), a length that is not a multiple of four or misplaced padding gives nil.
std::optional<Data> base64Decoded(std::string_view text);

}  // namespace bytes
}  // namespace lmkit
