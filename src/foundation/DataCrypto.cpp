#include "lmkit/foundation/DataCrypto.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <memory>

#include <openssl/evp.h>

#include "foundation/OpenSslCiphers.hpp"
#include "lmkit/foundation/DataDigest.hpp"

namespace lmkit::crypto {

namespace {

// AES-128 is what the buffer-keyed helpers always run with (see fixedKeyData).
constexpr std::size_t kFixedKeyLength = 16;

// Longest RC4 key the cipher accepts; longer keys are cut.
constexpr std::size_t kMaxRC4KeyLength = 512;

// Key length after forcing, per algorithm.
std::size_t forcedKeyLength(std::uint32_t algorithm, std::size_t length) {
    switch (algorithm) {
        case kAlgorithmAES:
            return length <= 16 ? 16 : length <= 24 ? 24 : 32;
        case kAlgorithmDES:
            return 8;
        case kAlgorithm3DES:
            return 24;
        case kAlgorithmCAST:
            return std::clamp<std::size_t>(length, 5, 16);
        case kAlgorithmRC4:
            return std::min(length, kMaxRC4KeyLength);
        default:
            return length;
    }
}

// Room the output needs beyond the input: one block for the padding a block cipher adds.
std::size_t outputSlack(std::uint32_t algorithm) {
    switch (algorithm) {
        case kAlgorithmAES:
            return 16;
        case kAlgorithmRC4:
            return 0;
        default:
            return 8;
    }
}

struct ContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

Data utf8Bytes(std::string_view text) {
    return bytes::toData(text);
}

}  // namespace

std::optional<Data> CCCryptData(const Data& data, std::uint32_t algorithm, std::uint32_t operation,
                                const Data& key, const std::optional<Data>& iv) {
    if (operation != kEncrypt && operation != kDecrypt)
        return std::nullopt;
    // EVP counts bytes in int.
    if (data.size() > static_cast<std::size_t>(INT_MAX) - 32)
        return std::nullopt;

    Data forcedKey = key;
    forcedKey.resize(forcedKeyLength(algorithm, key.size()));
    if (forcedKey.empty())
        return std::nullopt;  // RC4 with an empty key

    const EVP_CIPHER* cipher = detail::cipherFor(algorithm, iv.has_value(), forcedKey.size());
    if (cipher == nullptr)
        return std::nullopt;

    std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter> context(EVP_CIPHER_CTX_new());
    if (!context)
        return std::nullopt;
    const int encrypt = operation == kEncrypt ? 1 : 0;
    if (EVP_CipherInit_ex2(context.get(), cipher, nullptr, nullptr, encrypt, nullptr) != 1)
        return std::nullopt;
    if (EVP_CIPHER_CTX_get_key_length(context.get()) != static_cast<int>(forcedKey.size()) &&
        EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(forcedKey.size())) != 1)
        return std::nullopt;

    // The IV is one block long; a shorter one is zero-padded rather than read past its end.
    std::array<std::uint8_t, EVP_MAX_IV_LENGTH> ivBlock{};
    const int ivLength = EVP_CIPHER_CTX_get_iv_length(context.get());
    const std::uint8_t* ivBytes = nullptr;
    if (iv && ivLength > 0) {
        std::copy_n(iv->begin(), std::min<std::size_t>(iv->size(), ivLength), ivBlock.begin());
        ivBytes = ivBlock.data();
    }
    if (EVP_CipherInit_ex2(context.get(), nullptr, forcedKey.data(), ivBytes, encrypt, nullptr) !=
        1)
        return std::nullopt;

    Data output(data.size() + outputSlack(algorithm));
    int moved = 0;
    if (!data.empty() && EVP_CipherUpdate(context.get(), output.data(), &moved, data.data(),
                                          static_cast<int>(data.size())) != 1)
        return std::nullopt;
    int finalMoved = 0;
    if (EVP_CipherFinal_ex(context.get(), output.data() + moved, &finalMoved) != 1)
        return std::nullopt;
    output.resize(static_cast<std::size_t>(moved) + static_cast<std::size_t>(finalMoved));
    return output;
}

std::optional<Data> encryptedWithAESUsingKeyData(const Data& data, const Data& key,
                                                 const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmAES, kEncrypt, key, iv);
}

std::optional<Data> decryptedWithAESUsingKeyData(const Data& data, const Data& key,
                                                 const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmAES, kDecrypt, key, iv);
}

std::optional<Data> encryptedWithAESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmAES, kEncrypt, utf8Bytes(key), iv);
}

std::optional<Data> decryptedWithAESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmAES, kDecrypt, utf8Bytes(key), iv);
}

std::optional<Data> encryptedWith3DESUsingKey(const Data& data, std::string_view key,
                                              const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithm3DES, kEncrypt, utf8Bytes(key), iv);
}

std::optional<Data> decryptedWith3DESUsingKey(const Data& data, std::string_view key,
                                              const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithm3DES, kDecrypt, utf8Bytes(key), iv);
}

std::optional<Data> encryptedWithDESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmDES, kEncrypt, utf8Bytes(key), iv);
}

std::optional<Data> decryptedWithDESUsingKey(const Data& data, std::string_view key,
                                             const std::optional<Data>& iv) {
    return CCCryptData(data, kAlgorithmDES, kDecrypt, utf8Bytes(key), iv);
}

std::optional<Data> fixedKeyData(const std::optional<Data>& key) {
    if (!key)
        return std::nullopt;
    if (key->size() < kFixedKeyLength)
        return digest::md5Data(*key);
    if (key->size() > kFixedKeyLength)
        return Data(key->begin(), key->begin() + kFixedKeyLength);
    return key;
}

std::optional<Data> encryptedDataWithKeyData(const Data& data, const Data& key) {
    return CCCryptData(data, kAlgorithmAES, kEncrypt, *fixedKeyData(key), std::nullopt);
}

std::optional<Data> decryptedDataWithKeyData(const Data& data, const Data& key) {
    return CCCryptData(data, kAlgorithmAES, kDecrypt, *fixedKeyData(key), std::nullopt);
}

std::optional<Data> encryptedDataWithKeyData(const Data& data, const Data& key, const Data& iv) {
    return CCCryptData(data, kAlgorithmAES, kEncrypt, *fixedKeyData(key), iv);
}

std::optional<Data> decryptedDataWithKeyData(const Data& data, const Data& key, const Data& iv) {
    return CCCryptData(data, kAlgorithmAES, kDecrypt, *fixedKeyData(key), iv);
}

std::optional<Data> encrypted(const Data& data, std::string_view key) {
    const std::optional<Data> ciphertext = encryptedDataWithKeyData(data, utf8Bytes(key));
    if (!ciphertext)
        return std::nullopt;
    return bytes::toData(bytes::base64EncodedString(*ciphertext));
}

std::optional<Data> decrypted(const Data& data, std::string_view key) {
    const std::optional<std::string> text = bytes::UTF8String(data);
    if (!text)
        return std::nullopt;
    const std::optional<Data> ciphertext = bytes::base64Decoded(*text);
    if (!ciphertext)
        return std::nullopt;
    return decryptedDataWithKeyData(*ciphertext, utf8Bytes(key));
}

}  // namespace lmkit::crypto
