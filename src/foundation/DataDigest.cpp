#include "lmkit/foundation/DataDigest.hpp"

#include <climits>

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace lmkit::digest {

namespace {

Data digestOf(const Data& data, const EVP_MD* md) {
    Data out(static_cast<std::size_t>(EVP_MD_get_size(md)));
    unsigned int length = 0;
    // A one-shot digest over memory cannot fail short of allocation failure; then the result
    // is the all-zero buffer of the digest's length rather than an exception.
    EVP_Digest(data.data(), data.size(), out.data(), &length, md, nullptr);
    return out;
}

const EVP_MD* hmacDigest(std::uint32_t algorithm) {
    switch (algorithm) {
        case kHmacSHA1:
            return EVP_sha1();
        case kHmacMD5:
            return EVP_md5();
        case kHmacSHA256:
            return EVP_sha256();
        case kHmacSHA384:
            return EVP_sha384();
        case kHmacSHA512:
            return EVP_sha512();
        case kHmacSHA224:
            return EVP_sha224();
        default:
            return nullptr;
    }
}

}  // namespace

Data md5Data(const Data& data) {
    return digestOf(data, EVP_md5());
}
Data sha1Data(const Data& data) {
    return digestOf(data, EVP_sha1());
}
Data sha256Data(const Data& data) {
    return digestOf(data, EVP_sha256());
}
Data sha512Data(const Data& data) {
    return digestOf(data, EVP_sha512());
}

std::optional<Data> hmacDataUsingAlg(const Data& data, std::uint32_t algorithm, const Data& key) {
    const EVP_MD* md = hmacDigest(algorithm);
    if (md == nullptr || key.size() > static_cast<std::size_t>(INT_MAX))
        return std::nullopt;
    Data out(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    // HMAC wants a non-null key pointer even for an empty key.
    static const std::uint8_t kEmptyKey = 0;
    const std::uint8_t* keyBytes = key.empty() ? &kEmptyKey : key.data();
    if (HMAC(md, keyBytes, static_cast<int>(key.size()), data.data(), data.size(), out.data(),
             &length) == nullptr)
        return std::nullopt;
    out.resize(length);
    return out;
}

std::optional<Data> hmacMD5DataWithKey(const Data& data, const Data& key) {
    return hmacDataUsingAlg(data, kHmacMD5, key);
}
std::optional<Data> hmacSHA1DataWithKey(const Data& data, const Data& key) {
    return hmacDataUsingAlg(data, kHmacSHA1, key);
}
std::optional<Data> hmacSHA256DataWithKey(const Data& data, const Data& key) {
    return hmacDataUsingAlg(data, kHmacSHA256, key);
}
std::optional<Data> hmacSHA512DataWithKey(const Data& data, const Data& key) {
    return hmacDataUsingAlg(data, kHmacSHA512, key);
}

std::string hexString(const Data& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(data.size() * 2);
    for (std::uint8_t byte : data) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

}  // namespace lmkit::digest
