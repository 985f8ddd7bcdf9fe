#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "lmkit/foundation/Data.hpp"

/// Symmetric encryption of byte buffers: AES, DES, triple DES, CAST and RC4 with PKCS#7 padding,
/// CBC when an initialisation vector is given and ECB when it is not. Every operation returns
/// nil on failure (wrong key, bad padding, unknown algorithm) and never throws.
namespace lmkit::crypto {

// Algorithm codes, numbered as the platform's cipher interface numbers them.
inline constexpr std::uint32_t kAlgorithmAES = 0;
inline constexpr std::uint32_t kAlgorithmDES = 1;
inline constexpr std::uint32_t kAlgorithm3DES = 2;
inline constexpr std::uint32_t kAlgorithmCAST = 3;
inline constexpr std::uint32_t kAlgorithmRC4 = 4;

// Operation codes.
inline constexpr std::uint32_t kEncrypt = 0;
inline constexpr std::uint32_t kDecrypt = 1;

/// The cipher routine. The key is zero-padded or cut to the algorithm's key length (AES: 16, 24
/// or 32 by the key's size; DES 8; triple DES 24; CAST 5 to 16; RC4 up to 512). An IV shorter
/// than one block is zero-padded, a longer one is read up to one block; RC4 ignores it.
std::optional<Data> CCCryptData(const Data& data, std::uint32_t algorithm, std::uint32_t operation,
                                const Data& key, const std::optional<Data>& iv);

/// AES with a byte key (128, 192 or 256 bits by the key's length).
std::optional<Data> encryptedWithAESUsingKeyData(const Data& data, const Data& key,
                                                 const std::optional<Data>& iv);
std::optional<Data> decryptedWithAESUsingKeyData(const Data& data, const Data& key,
                                                 const std::optional<Data>& iv);

/// AES, triple DES and DES with a text key taken as its UTF-8 bytes.
std::optional<Data> encryptedWithAESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv);
std::optional<Data> decryptedWithAESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv);
std::optional<Data> encryptedWith3DESUsingKey(const Data& data, std::string_view key,
                                              const std::optional<Data>& iv);
std::optional<Data> decryptedWith3DESUsingKey(const Data& data, std::string_view key,
                                              const std::optional<Data>& iv);
std::optional<Data> encryptedWithDESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv);
std::optional<Data> decryptedWithDESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv);

/// The 16-byte AES key made from a key buffer: a shorter key becomes its MD5 digest, a longer
/// one is cut to its first 16 bytes, 16 bytes are used as they are; nil stays nil.
std::optional<Data> fixedKeyData(const std::optional<Data>& key);

/// AES-128 with `fixedKeyData` of the key: ECB without an IV, CBC with one.
std::optional<Data> encryptedDataWithKeyData(const Data& data, const Data& key);
std::optional<Data> decryptedDataWithKeyData(const Data& data, const Data& key);
std::optional<Data> encryptedDataWithKeyData(const Data& data, const Data& key, const Data& iv);
std::optional<Data> decryptedDataWithKeyData(const Data& data, const Data& key, const Data& iv);

/// Text-keyed pair used to keep records unreadable at rest. `encrypted` returns the UTF-8
/// bytes of the base64 text (no line breaks) of the AES-128-ECB ciphertext; `decrypted` reads
/// such a buffer back. Nil at the first step that fails.
std::optional<Data> encrypted(const Data& data, std::string_view key);
std::optional<Data> decrypted(const Data& data, std::string_view key);

}  // namespace lmkit::crypto
