#include "lmkit/foundation/LFCGzipUtility.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

#include "OpenSslCli.hpp"
#include "lmkit/foundation/Log.hpp"

namespace lmkit {
namespace {

namespace cli = testing::openssl;

Data jsonLike(std::size_t length) {
    std::string text;
    for (int i = 0; text.size() < length; ++i)
        text += R"({"id":)" + std::to_string(i) + R"(,"host":"node)" + std::to_string(i % 97) +
                R"(.example.net","delay":)" + std::to_string(i % 400) + "},";
    text.resize(length);
    return Data(text.begin(), text.end());
}

Data randomBytes(std::size_t length, unsigned seed) {
    std::mt19937 engine(seed);
    Data data(length);
    for (auto& byte : data)
        byte = static_cast<std::uint8_t>(engine());
    return data;
}

// A zlib (not gzip) stream made by zlib itself.
Data zlibStream(const Data& data) {
    uLongf length = compressBound(data.size());
    Data out(length);
    EXPECT_EQ(compress2(out.data(), &length, data.data(), data.size(), 6), Z_OK);
    out.resize(length);
    return out;
}

TEST(LFCGzipUtilityTest, GzipOutputIsAGzipStreamThatGzipItselfReads) {
    const Data input = jsonLike(100000);
    log::Capture capture;
    const auto compressed = LFCGzipUtility::gzipData(input);
    ASSERT_TRUE(compressed.has_value());
    ASSERT_GE(compressed->size(), 2u);
    EXPECT_EQ((*compressed)[0], 0x1F);
    EXPECT_EQ((*compressed)[1], 0x8B);
    EXPECT_LT(compressed->size(), input.size() / 4);

    testing::TempDir dir;
    cli::writeFile(dir.path() / "in.gz", *compressed);
    int status = 0;
    const std::string text =
        testing::runCommand("gzip -dc " + (dir.path() / "in.gz").string(), &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text, std::string(input.begin(), input.end()));

    EXPECT_TRUE(capture.contains("+[LFCGzipUtility gzipData:]: Compressed file from 97 KB to " +
                                 std::to_string(compressed->size() / 1024) + " KB"));
}

TEST(LFCGzipUtilityTest, EmptyInputIsLoggedAndGivesNil) {
    log::Capture capture;
    EXPECT_FALSE(LFCGzipUtility::gzipData(Data{}));
    EXPECT_TRUE(capture.contains(
        "+[LFCGzipUtility gzipData:]: Error: Can't compress an empty or null NSData object."));
}

TEST(LFCGzipUtilityTest, OutputBufferIsSizedOnceAndNeverGrown) {
    // Random bytes do not compress: stored blocks plus header and trailer exceed the 16 KiB
    // buffer given to inputs of up to 16 KiB, so compression fails rather than grows.
    EXPECT_FALSE(LFCGzipUtility::gzipData(randomBytes(16384, 1)));
    // Larger inputs get 1 % and 12 bytes of room, which stored blocks fit in.
    const Data incompressible = randomBytes(200000, 2);
    const auto compressed = LFCGzipUtility::gzipData(incompressible);
    ASSERT_TRUE(compressed.has_value());
    EXPECT_EQ(LFCGzipUtility::ungzipData(*compressed), incompressible);
    // A small input fits easily.
    const Data small = jsonLike(100);
    EXPECT_EQ(LFCGzipUtility::ungzipData(*LFCGzipUtility::gzipData(small)), small);
}

TEST(LFCGzipUtilityTest, UngzipReadsGzipAndZlibStreamsOfOtherTools) {
    const Data input = jsonLike(50000);
    testing::TempDir dir;
    cli::writeFile(dir.path() / "in", input);
    testing::runCommand("gzip -9 -k " + (dir.path() / "in").string());
    const Data gzipped = cli::readFile(dir.path() / "in.gz");
    ASSERT_FALSE(gzipped.empty());
    EXPECT_EQ(LFCGzipUtility::ungzipData(gzipped), input);
    EXPECT_EQ(LFCGzipUtility::ungzipData(zlibStream(input)), input);
    // Output many times larger than the input: the buffer grows by half the input at a time.
    const Data zeros(4 << 20, 0);
    EXPECT_EQ(LFCGzipUtility::ungzipData(*LFCGzipUtility::gzipData(zeros)), zeros);
}

TEST(LFCGzipUtilityTest, EmptyInputComesBackAndDamagedStreamsGiveNil) {
    const auto empty = LFCGzipUtility::ungzipData(Data{});
    ASSERT_TRUE(empty.has_value());
    EXPECT_TRUE(empty->empty());

    const Data compressed = *LFCGzipUtility::gzipData(jsonLike(20000));
    for (std::size_t cut : {compressed.size() - 1, compressed.size() - 8, compressed.size() / 2,
                            std::size_t{10}, std::size_t{1}}) {
        EXPECT_FALSE(LFCGzipUtility::ungzipData(Data(compressed.begin(), compressed.begin() + cut)))
            << "cut at " << cut;
    }
    Data badChecksum = compressed;
    badChecksum[badChecksum.size() - 6] ^= 0x01;  // the CRC-32 in the trailer
    EXPECT_FALSE(LFCGzipUtility::ungzipData(badChecksum));
    const Data text = jsonLike(64);
    EXPECT_FALSE(LFCGzipUtility::ungzipData(text));  // not compressed at all
}

TEST(LFCGzipUtilityTest, LimitedUngzipRefusesToGrowPastTheLimit) {
    const Data input = jsonLike(30000);
    const Data compressed = *LFCGzipUtility::gzipData(input);

    UngzipResult exact = LFCGzipUtility::ungzipData(compressed, input.size());
    EXPECT_EQ(exact.status, UngzipResult::Status::Ok);
    EXPECT_EQ(exact.data, input);

    UngzipResult over = LFCGzipUtility::ungzipData(compressed, input.size() - 1);
    EXPECT_EQ(over.status, UngzipResult::Status::TooLarge);
    EXPECT_FALSE(over);
    EXPECT_TRUE(over.data.empty());

    // A bomb: 64 MiB of zeros from about 64 KiB, stopped at 1 MiB.
    const Data bomb = *LFCGzipUtility::gzipData(Data(64 << 20, 0));
    EXPECT_EQ(LFCGzipUtility::ungzipData(bomb, 1 << 20).status, UngzipResult::Status::TooLarge);

    Data truncated(compressed.begin(), compressed.end() - 4);
    EXPECT_EQ(LFCGzipUtility::ungzipData(truncated, 1 << 20).status, UngzipResult::Status::Corrupt);
    EXPECT_EQ(LFCGzipUtility::ungzipData(Data{}, 0).status, UngzipResult::Status::Ok);
    EXPECT_EQ(LFCGzipUtility::ungzipData(compressed, 0).status, UngzipResult::Status::TooLarge);
}

}  // namespace
}  // namespace lmkit
