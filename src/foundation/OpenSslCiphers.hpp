#pragma once

#include <cstdint>

#include <openssl/evp.h>

namespace lmkit::crypto::detail {

/// The cipher for an algorithm code, mode and key length, fetched once per process (DES, CAST
/// and RC4 come from OpenSSL's "legacy" provider, loaded here with "default" beside it).
/// Null when the algorithm is unknown or its provider is missing.
const EVP_CIPHER* cipherFor(std::uint32_t algorithm, bool cbc, std::size_t keyLength);

}  // namespace lmkit::crypto::detail
