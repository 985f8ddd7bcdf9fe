#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lmkit/foundation/Data.hpp"

/// Digests and HMACs of whole byte buffers.
namespace lmkit::digest {

// HMAC algorithm codes, numbered as the platform's HMAC interface numbers them.
inline constexpr std::uint32_t kHmacSHA1 = 0;    // 20 bytes
inline constexpr std::uint32_t kHmacMD5 = 1;     // 16 bytes
inline constexpr std::uint32_t kHmacSHA256 = 2;  // 32 bytes
inline constexpr std::uint32_t kHmacSHA384 = 3;  // 48 bytes
inline constexpr std::uint32_t kHmacSHA512 = 4;  // 64 bytes
inline constexpr std::uint32_t kHmacSHA224 = 5;  // 28 bytes

Data md5Data(const Data& data);     // 16 bytes
Data sha1Data(const Data& data);    // 20 bytes
Data sha256Data(const Data& data);  // 32 bytes
Data sha512Data(const Data& data);  // 64 bytes

/// HMAC of the buffer with `key`; nil for an algorithm code of 6 or more.
std::optional<Data> hmacDataUsingAlg(const Data& data, std::uint32_t algorithm, const Data& key);

std::optional<Data> hmacMD5DataWithKey(const Data& data, const Data& key);
std::optional<Data> hmacSHA1DataWithKey(const Data& data, const Data& key);
std::optional<Data> hmacSHA256DataWithKey(const Data& data, const Data& key);
std::optional<Data> hmacSHA512DataWithKey(const Data& data, const Data& key);

/// Lower-case hexadecimal text of the bytes.
std::string hexString(const Data& data);

}  // namespace lmkit::digest
