#include "foundation/OpenSslCiphers.hpp"

#include <array>
#include <string>

#include <openssl/provider.h>

#include "lmkit/foundation/DataCrypto.hpp"

namespace lmkit::crypto::detail {

namespace {

// Every cipher the routine can use, fetched once: fetching by name costs a provider lookup,
// which would otherwise be paid on every call.
struct CipherTable {
    // [mode: 0 ECB, 1 CBC]
    std::array<EVP_CIPHER*, 2> aes128{}, aes192{}, aes256{}, des{}, tripleDes{}, cast{};
    EVP_CIPHER* rc4 = nullptr;

    CipherTable() {
        // Loading one provider explicitly stops OpenSSL from loading "default" on its own, so
        // both are loaded. A missing legacy module leaves DES, CAST and RC4 unavailable (nil).
        OSSL_PROVIDER_load(nullptr, "legacy");
        OSSL_PROVIDER_load(nullptr, "default");
        fetchPair(aes128, "AES-128");
        fetchPair(aes192, "AES-192");
        fetchPair(aes256, "AES-256");
        fetchPair(des, "DES");
        fetchPair(tripleDes, "DES-EDE3");
        fetchPair(cast, "CAST5");
        rc4 = EVP_CIPHER_fetch(nullptr, "RC4", nullptr);
    }

    static void fetchPair(std::array<EVP_CIPHER*, 2>& pair, const std::string& name) {
        pair[0] = EVP_CIPHER_fetch(nullptr, (name + "-ECB").c_str(), nullptr);
        pair[1] = EVP_CIPHER_fetch(nullptr, (name + "-CBC").c_str(), nullptr);
    }
};

const CipherTable& table() {
    // Kept for the life of the process: ciphers are in use until exit.
    static const CipherTable* const instance = new CipherTable();
    return *instance;
}

}  // namespace

const EVP_CIPHER* cipherFor(std::uint32_t algorithm, bool cbc, std::size_t keyLength) {
    const CipherTable& ciphers = table();
    const int mode = cbc ? 1 : 0;
    switch (algorithm) {
        case kAlgorithmAES:
            if (keyLength == 16)
                return ciphers.aes128[mode];
            if (keyLength == 24)
                return ciphers.aes192[mode];
            if (keyLength == 32)
                return ciphers.aes256[mode];
            return nullptr;
        case kAlgorithmDES:
            return ciphers.des[mode];
        case kAlgorithm3DES:
            return ciphers.tripleDes[mode];
        case kAlgorithmCAST:
            return ciphers.cast[mode];
        case kAlgorithmRC4:
            return ciphers.rc4;
        default:
            return nullptr;
    }
}

}  // namespace lmkit::crypto::detail
