#include "lmkit/foundation/DataCrypto.hpp"

#include <gtest/gtest.h>

#include "OpenSslCli.hpp"
#include "lmkit/foundation/DataDigest.hpp"

namespace lmkit::crypto {
namespace {

namespace cli = testing::openssl;

Data bytesOf(std::string_view text) {
    return bytes::toData(text);
}

Data sequence(std::size_t length, std::uint8_t start = 0) {
    Data data(length);
    for (std::size_t i = 0; i < length; ++i)
        data[i] = static_cast<std::uint8_t>(start + i * 7);
    return data;
}

// The key the cipher actually runs with: zero-padded or cut to `length`.
std::string forcedKeyHex(Data key, std::size_t length) {
    key.resize(length);
    return cli::hex(key);
}

const Data kPlain = bytesOf("The quick brown fox jumps over the lazy dog, twice over.");

TEST(DataCryptoTest, EveryAlgorithmMatchesOpensslInBothModes) {
    struct Case {
        std::uint32_t algorithm;
        std::size_t keyLength;
        std::size_t forcedLength;
        std::string ecb, cbc;  // openssl cipher names; empty when the mode does not apply
        std::size_t block;
    };
    const Case cases[] = {
        {kAlgorithmAES, 16, 16, "aes-128-ecb", "aes-128-cbc", 16},
        {kAlgorithmAES, 5, 16, "aes-128-ecb", "aes-128-cbc", 16},   // padded to AES-128
        {kAlgorithmAES, 20, 24, "aes-192-ecb", "aes-192-cbc", 16},  // padded to AES-192
        {kAlgorithmAES, 32, 32, "aes-256-ecb", "aes-256-cbc", 16},
        {kAlgorithmAES, 40, 32, "aes-256-ecb", "aes-256-cbc", 16},  // cut to AES-256
        {kAlgorithmDES, 3, 8, "des-ecb", "des-cbc", 8},
        {kAlgorithmDES, 12, 8, "des-ecb", "des-cbc", 8},
        {kAlgorithm3DES, 24, 24, "des-ede3-ecb", "des-ede3-cbc", 8},
        {kAlgorithm3DES, 30, 24, "des-ede3-ecb", "des-ede3-cbc", 8},
        {kAlgorithmCAST, 16, 16, "cast5-ecb", "cast5-cbc", 8},
        {kAlgorithmCAST, 20, 16, "cast5-ecb", "cast5-cbc", 8},
        {kAlgorithmRC4, 16, 16, "rc4", "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ecb + " with a key of " + std::to_string(c.keyLength) + " bytes");
        const Data key = sequence(c.keyLength, 11);
        const std::string keyHex = forcedKeyHex(key, c.forcedLength);

        const auto ecb = CCCryptData(kPlain, c.algorithm, kEncrypt, key, std::nullopt);
        ASSERT_TRUE(ecb.has_value());
        EXPECT_EQ(cli::hex(*ecb), cli::hex(cli::enc(c.ecb, keyHex, "", kPlain)));
        const auto back = CCCryptData(*ecb, c.algorithm, kDecrypt, key, std::nullopt);
        ASSERT_TRUE(back.has_value());
        EXPECT_EQ(*back, kPlain);

        if (c.cbc.empty())
            continue;
        const Data iv = sequence(c.block, 99);
        const auto cbc = CCCryptData(kPlain, c.algorithm, kEncrypt, key, iv);
        ASSERT_TRUE(cbc.has_value());
        EXPECT_EQ(cli::hex(*cbc), cli::hex(cli::enc(c.cbc, keyHex, cli::hex(iv), kPlain)));
        EXPECT_NE(*cbc, *ecb);
        const auto cbcBack = CCCryptData(*cbc, c.algorithm, kDecrypt, key, iv);
        ASSERT_TRUE(cbcBack.has_value());
        EXPECT_EQ(*cbcBack, kPlain);
    }
}

TEST(DataCryptoTest, ShortCastKeysAreExtendedToFiveBytes) {
    // CAST keys of 5 to 16 bytes are used at their own length (shorter keys run fewer rounds),
    // so a 3-byte key must behave as its 5-byte zero extension, not as a 16-byte one.
    const Data shortKey = bytesOf("abc");
    const Data extended = {'a', 'b', 'c', 0, 0};
    const auto viaShort = CCCryptData(kPlain, kAlgorithmCAST, kEncrypt, shortKey, std::nullopt);
    const auto viaFive = CCCryptData(kPlain, kAlgorithmCAST, kEncrypt, extended, std::nullopt);
    const auto viaSixteen =
        CCCryptData(kPlain, kAlgorithmCAST, kEncrypt,
                    Data{'a', 'b', 'c', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, std::nullopt);
    ASSERT_TRUE(viaShort && viaFive && viaSixteen);
    EXPECT_EQ(*viaShort, *viaFive);
    EXPECT_NE(*viaShort, *viaSixteen);
}

TEST(DataCryptoTest, IvShorterThanABlockIsZeroPaddedAndLongerIsCut) {
    const Data key = sequence(16);
    const Data shortIv = {1, 2, 3};
    const Data longIv = sequence(40, 5);
    const auto withShort = encryptedWithAESUsingKeyData(kPlain, key, shortIv);
    const auto withLong = encryptedWithAESUsingKeyData(kPlain, key, longIv);
    ASSERT_TRUE(withShort && withLong);
    EXPECT_EQ(cli::hex(*withShort), cli::hex(cli::enc("aes-128-cbc", cli::hex(key),
                                                      "01020300000000000000000000000000", kPlain)));
    EXPECT_EQ(cli::hex(*withLong),
              cli::hex(cli::enc("aes-128-cbc", cli::hex(key),
                                cli::hex(Data(longIv.begin(), longIv.begin() + 16)), kPlain)));
}

TEST(DataCryptoTest, FailuresGiveNil) {
    const Data key = bytesOf("0123456789abcdef");
    const auto ciphertext = encryptedWithAESUsingKeyData(kPlain, key, std::nullopt);
    ASSERT_TRUE(ciphertext.has_value());

    // Truncated ciphertext: no longer a whole number of blocks.
    Data truncated(ciphertext->begin(), ciphertext->end() - 1);
    EXPECT_FALSE(decryptedWithAESUsingKeyData(truncated, key, std::nullopt));
    // A whole block missing: the last block no longer ends in valid padding.
    Data shortened(ciphertext->begin(), ciphertext->end() - 16);
    EXPECT_FALSE(decryptedWithAESUsingKeyData(shortened, key, std::nullopt));
    // Wrong key: openssl rejects the padding as well, so nil is what it must be.
    const Data wrongKey = bytesOf("fedcba9876543210");
    int status = 0;
    cli::enc("aes-128-ecb", cli::hex(wrongKey), "", *ciphertext, /*decrypt=*/true, &status);
    ASSERT_NE(status, 0);
    EXPECT_FALSE(decryptedWithAESUsingKeyData(*ciphertext, wrongKey, std::nullopt));
    // Unknown algorithm and operation codes.
    EXPECT_FALSE(CCCryptData(kPlain, 5, kEncrypt, key, std::nullopt));
    EXPECT_FALSE(CCCryptData(kPlain, kAlgorithmAES, 2, key, std::nullopt));
    // RC4 has nothing to run with an empty key.
    EXPECT_FALSE(CCCryptData(kPlain, kAlgorithmRC4, kEncrypt, Data{}, std::nullopt));
    // Decrypting nothing: there is no padding block to remove.
    EXPECT_FALSE(decryptedWithAESUsingKeyData(Data{}, key, std::nullopt));
}

TEST(DataCryptoTest, EmptyInputEncryptsToOneFullPaddingBlock) {
    const Data key = sequence(16);
    const auto aes = encryptedWithAESUsingKeyData(Data{}, key, std::nullopt);
    ASSERT_TRUE(aes.has_value());
    EXPECT_EQ(aes->size(), 16u);
    EXPECT_EQ(cli::hex(*aes), cli::hex(cli::enc("aes-128-ecb", cli::hex(key), "", Data{})));
    const auto back = decryptedWithAESUsingKeyData(*aes, key, std::nullopt);
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(back->empty());
}

TEST(DataCryptoTest, TextKeyedHelpersUseTheKeysUtf8Bytes) {
    const std::string key = "clé-secrète-24-octets!";  // 24 UTF-8 bytes: triple DES as it is
    ASSERT_EQ(key.size(), 24u);
    const Data keyBytes = bytesOf(key);
    const Data iv = sequence(8, 1);
    const auto tripleDes = encryptedWith3DESUsingKey(kPlain, key, iv);
    ASSERT_TRUE(tripleDes.has_value());
    EXPECT_EQ(cli::hex(*tripleDes),
              cli::hex(cli::enc("des-ede3-cbc", cli::hex(keyBytes), cli::hex(iv), kPlain)));
    EXPECT_EQ(decryptedWith3DESUsingKey(*tripleDes, key, iv), kPlain);

    const auto des = encryptedWithDESUsingKey(kPlain, "k", std::nullopt);
    ASSERT_TRUE(des.has_value());
    EXPECT_EQ(cli::hex(*des), cli::hex(cli::enc("des-ecb", "6b00000000000000", "", kPlain)));
    EXPECT_EQ(decryptedWithDESUsingKey(*des, "k", std::nullopt), kPlain);

    const auto aes = encryptedWithAESUsingKey(kPlain, key, std::nullopt);
    ASSERT_TRUE(aes.has_value());
    EXPECT_EQ(cli::hex(*aes), cli::hex(cli::enc("aes-192-ecb", cli::hex(keyBytes), "", kPlain)));
    EXPECT_EQ(decryptedWithAESUsingKey(*aes, key, std::nullopt), kPlain);
}

TEST(DataCryptoTest, FixedKeyDataIsMd5OfShortKeysAndPrefixOfLongOnes) {
    EXPECT_FALSE(fixedKeyData(std::nullopt));
    const Data five = bytesOf("hello");
    ASSERT_TRUE(fixedKeyData(five));
    EXPECT_EQ(cli::hex(*fixedKeyData(five)), cli::dgst("md5", five));
    EXPECT_EQ(cli::hex(*fixedKeyData(Data{})), cli::dgst("md5", Data{}));
    const Data twenty = sequence(20);
    EXPECT_EQ(fixedKeyData(twenty), Data(twenty.begin(), twenty.begin() + 16));
    const Data sixteen = sequence(16, 3);
    EXPECT_EQ(fixedKeyData(sixteen), sixteen);
}

TEST(DataCryptoTest, KeyDataHelpersRunAes128WithTheFixedKey) {
    const Data key = bytesOf("device-identifier-0001");  // 22 bytes: cut to 16
    const std::string fixedHex = cli::hex(Data(key.begin(), key.begin() + 16));
    const auto ecb = encryptedDataWithKeyData(kPlain, key);
    ASSERT_TRUE(ecb.has_value());
    EXPECT_EQ(cli::hex(*ecb), cli::hex(cli::enc("aes-128-ecb", fixedHex, "", kPlain)));
    EXPECT_EQ(decryptedDataWithKeyData(*ecb, key), kPlain);

    const Data iv = sequence(16, 200);
    const auto cbc = encryptedDataWithKeyData(kPlain, key, iv);
    ASSERT_TRUE(cbc.has_value());
    EXPECT_EQ(cli::hex(*cbc), cli::hex(cli::enc("aes-128-cbc", fixedHex, cli::hex(iv), kPlain)));
    EXPECT_EQ(decryptedDataWithKeyData(*cbc, key, iv), kPlain);
}

TEST(DataCryptoTest, EncryptedIsBase64OfAes128EcbAndDecryptedReadsItBack) {
    const Data record = bytesOf(R"({"ip":"203.0.113.7","isp":"example"})");
    const std::string key = "A1B2C3D4-0000-1111-2222-333344445555";
    const auto sealed = encrypted(record, key);
    ASSERT_TRUE(sealed.has_value());

    // Reference: openssl's base64 (-a -A: one line) of AES-128-ECB under the 16-byte prefix.
    const Data keyBytes = bytesOf(key);
    const std::string fixedHex = cli::hex(Data(keyBytes.begin(), keyBytes.begin() + 16));
    testing::TempDir dir;
    cli::writeFile(dir.path() / "in", record);
    const std::string reference = testing::runCommand(
        "openssl enc -aes-128-ecb -a -A -K " + fixedHex + " -in " + (dir.path() / "in").string());
    EXPECT_EQ(*bytes::UTF8String(*sealed), reference);

    EXPECT_EQ(decrypted(*sealed, key), record);
    const auto withOtherKey = decrypted(*sealed, "another-device");
    EXPECT_TRUE(!withOtherKey || *withOtherKey != record);

    // Each step of decrypted fails on its own kind of bad input.
    EXPECT_FALSE(decrypted(Data{0xC3, 0x28}, key));  // not UTF-8
    Data withBreak = *sealed;
    withBreak.insert(withBreak.begin() + 4, '\n');
    EXPECT_FALSE(decrypted(withBreak, key));        // not strict base64
    EXPECT_FALSE(decrypted(bytesOf("QUJD"), key));  // base64, but not whole blocks
    EXPECT_FALSE(decrypted(bytesOf(""), key));      // nothing to decrypt
}

TEST(DataCryptoTest, Base64MatchesOpensslAndRejectsNonCanonicalText) {
    for (std::size_t length : {0u, 1u, 2u, 3u, 4u, 5u, 31u}) {
        const Data data = sequence(length, 250);
        testing::TempDir dir;
        cli::writeFile(dir.path() / "in", data);
        const std::string reference =
            testing::runCommand("openssl base64 -A -in " + (dir.path() / "in").string());
        EXPECT_EQ(bytes::base64EncodedString(data), reference) << length;
        EXPECT_EQ(bytes::base64Decoded(reference), data) << length;
    }
    EXPECT_FALSE(bytes::base64Decoded("QQ"));     // padding missing
    EXPECT_FALSE(bytes::base64Decoded("QR=="));   // stray bits after the last byte
    EXPECT_FALSE(bytes::base64Decoded("Q=Q="));   // padding inside
    EXPECT_FALSE(bytes::base64Decoded("QUJD "));  // space
}

}  // namespace
}  // namespace lmkit::crypto
