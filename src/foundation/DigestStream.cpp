#include "lmkit/foundation/DigestStream.hpp"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

namespace lmkit::digest {

// One of the two is set: a plain digest or an HMAC.
struct DigestStream::State {
    EVP_MD_CTX* digest = nullptr;
    EVP_MAC_CTX* mac = nullptr;

    ~State() {
        EVP_MD_CTX_free(digest);
        EVP_MAC_CTX_free(mac);
    }
};

std::unique_ptr<DigestStream> DigestStream::make(std::string_view algorithm,
                                                 const std::optional<Data>& hmacKey) {
    const EVP_MD* md = nullptr;
    const char* name = nullptr;
    if (algorithm == "md5")
        md = EVP_md5(), name = "MD5";
    else if (algorithm == "sha1")
        md = EVP_sha1(), name = "SHA1";
    else if (algorithm == "sha256")
        md = EVP_sha256(), name = "SHA256";
    else if (algorithm == "sha512")
        md = EVP_sha512(), name = "SHA512";
    else
        return nullptr;

    auto state = std::make_unique<State>();
    if (!hmacKey) {
        state->digest = EVP_MD_CTX_new();
        if (!state->digest || EVP_DigestInit_ex(state->digest, md, nullptr) != 1)
            return nullptr;
    } else {
        EVP_MAC* hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        if (!hmac)
            return nullptr;
        state->mac = EVP_MAC_CTX_new(hmac);
        EVP_MAC_free(hmac);
        OSSL_PARAM params[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(name), 0),
            OSSL_PARAM_construct_end()};
        // HMAC wants a non-null key pointer even for an empty key.
        static const std::uint8_t kEmptyKey = 0;
        const std::uint8_t* key = hmacKey->empty() ? &kEmptyKey : hmacKey->data();
        if (!state->mac || EVP_MAC_init(state->mac, key, hmacKey->size(), params) != 1)
            return nullptr;
    }
    return std::unique_ptr<DigestStream>(new DigestStream(std::move(state)));
}

DigestStream::DigestStream(std::unique_ptr<State> state) : state_(std::move(state)) {}
DigestStream::~DigestStream() = default;

void DigestStream::update(const std::uint8_t* data, std::size_t size) {
    if (state_->digest)
        EVP_DigestUpdate(state_->digest, data, size);
    else
        EVP_MAC_update(state_->mac, data, size);
}

Data DigestStream::finish() {
    Data out(EVP_MAX_MD_SIZE);
    if (state_->digest) {
        unsigned int length = 0;
        EVP_DigestFinal_ex(state_->digest, out.data(), &length);
        out.resize(length);
    } else {
        std::size_t length = 0;
        EVP_MAC_final(state_->mac, out.data(), &length, out.size());
        out.resize(length);
    }
    return out;
}

}  // namespace lmkit::digest
