#include "lmkit/foundation/DataDigest.hpp"

#include <gtest/gtest.h>

#include "OpenSslCli.hpp"

namespace lmkit::digest {
namespace {

namespace cli = testing::openssl;

Data pattern(std::size_t length) {
    Data data(length);
    for (std::size_t i = 0; i < length; ++i)
        data[i] = static_cast<std::uint8_t>(i * 31 + 7);
    return data;
}

TEST(DataDigestTest, DigestsMatchOpenssl) {
    // Empty, shorter than a block, and longer than several blocks.
    for (std::size_t length : {0u, 3u, 1000u}) {
        SCOPED_TRACE(length);
        const Data data = pattern(length);
        EXPECT_EQ(hexString(md5Data(data)), cli::dgst("md5", data));
        EXPECT_EQ(hexString(sha1Data(data)), cli::dgst("sha1", data));
        EXPECT_EQ(hexString(sha256Data(data)), cli::dgst("sha256", data));
        EXPECT_EQ(hexString(sha512Data(data)), cli::dgst("sha512", data));
    }
    EXPECT_EQ(md5Data({}).size(), 16u);
    EXPECT_EQ(sha512Data({}).size(), 64u);
}

TEST(DataDigestTest, HmacCodesFollowTheCipherInterfaceNumbering) {
    const Data data = pattern(300);
    // A key longer than the SHA-256 block exercises the key-hashing path of HMAC.
    for (const Data& key : {Data{'k', 'e', 'y'}, pattern(100)}) {
        SCOPED_TRACE(key.size());
        const std::string keyHex = cli::hex(key);
        const std::pair<std::uint32_t, std::string> codes[] = {
            {kHmacSHA1, "sha1"},     {kHmacMD5, "md5"},       {kHmacSHA256, "sha256"},
            {kHmacSHA384, "sha384"}, {kHmacSHA512, "sha512"}, {kHmacSHA224, "sha224"},
        };
        for (const auto& [code, name] : codes) {
            const auto mac = hmacDataUsingAlg(data, code, key);
            ASSERT_TRUE(mac.has_value()) << name;
            EXPECT_EQ(hexString(*mac), cli::dgst(name, data, keyHex)) << name;
        }
        EXPECT_EQ(hmacMD5DataWithKey(data, key), hmacDataUsingAlg(data, kHmacMD5, key));
        EXPECT_EQ(hmacSHA1DataWithKey(data, key), hmacDataUsingAlg(data, kHmacSHA1, key));
        EXPECT_EQ(hmacSHA256DataWithKey(data, key), hmacDataUsingAlg(data, kHmacSHA256, key));
        EXPECT_EQ(hmacSHA512DataWithKey(data, key), hmacDataUsingAlg(data, kHmacSHA512, key));
    }
    EXPECT_FALSE(hmacDataUsingAlg(data, 6, Data{'k'}));
    EXPECT_FALSE(hmacDataUsingAlg(data, 7, Data{'k'}));
}

TEST(DataDigestTest, HmacWithAnEmptyKeyMatchesOpenssl) {
    const Data data = pattern(10);
    const auto mac = hmacSHA256DataWithKey(data, Data{});
    ASSERT_TRUE(mac.has_value());
    // openssl rejects an empty hex key but takes an empty text key.
    testing::TempDir dir;
    cli::writeFile(dir.path() / "in", data);
    const std::string output =
        testing::runCommand("openssl dgst -sha256 -r -hmac '' " + (dir.path() / "in").string());
    EXPECT_EQ(hexString(*mac), output.substr(0, output.find(' ')));
}

}  // namespace
}  // namespace lmkit::digest
