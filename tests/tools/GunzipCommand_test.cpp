// lmkit gunzip against the system's gzip -d: members, limits, and an output file that is
// replaced whole or not at all.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/ToolCommandTest.hpp"

namespace {

class GunzipCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    void SetUp() override {
        ToolCommandTest::SetUp();
        if (IsSkipped())
            return;
        // Two texts, their gzip members, and what `cat` makes of them.
        script(
            "seq 1 20000 > a && printf 'second member\\n' > b && gzip -k a b && "
            "cat a.gz b.gz > ab.gz && cat a.gz b.gz > padded.gz && head -c 512 /dev/zero >> "
            "padded.gz");
    }
    std::string read(const std::string& name) {
        std::ifstream in(dir_.path() / name, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Exit code 1 and one line on standard error that contains `fragment`.
    void expectFailure(const std::string& args, const std::string& fragment) {
        int status = -1;
        script("\"$LMKIT\" gunzip " + args + " >out 2>err", &status);
        EXPECT_EQ(status, 1) << args;
        auto err = read("err");
        EXPECT_NE(err.find(fragment), std::string::npos) << args << ": " << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << args << ": " << err;
    }
};

}  // namespace

TEST_F(GunzipCommandTest, EveryMemberComesOutAsGzipDecompressesIt) {
    for (const char* input : {"ab.gz", "padded.gz"}) {
        int status = -1;
        auto reference = script(std::string("gzip -dc ") + input, &status);
        ASSERT_EQ(status, 0) << input;
        ASSERT_EQ(reference, read("a") + read("b"));
        EXPECT_EQ(script(std::string("\"$LMKIT\" gunzip ") + input, &status), reference) << input;
        EXPECT_EQ(status, 0);
        EXPECT_EQ(script(std::string("\"$LMKIT\" gunzip < ") + input, &status), reference) << input;
        EXPECT_EQ(status, 0);
    }
    // The largest limit is a limit, not a wrapped small one.
    int status = -1;
    script("\"$LMKIT\" gunzip --max-bytes 18446744073709551615 -o ab ab.gz", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read("ab"), read("a") + read("b"));

    // gzip and digest read in pieces; what they make of a file larger than one piece is what
    // gzip -d and sha256sum make of it.
    EXPECT_EQ(script("\"$LMKIT\" gzip < a | gzip -dc", &status), read("a"));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(script("\"$LMKIT\" gzip a -o a2.gz && gzip -dc a2.gz", &status), read("a"));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(script("\"$LMKIT\" digest sha256 a", &status), script("sha256sum a | cut -d' ' -f1"));
    EXPECT_EQ(status, 0);
}

TEST_F(GunzipCommandTest, BadInputAndBadLimitsAreOneLine) {
    expectFailure("--max-bytes 18446744073709551616 ab.gz",
                  "--max-bytes: '18446744073709551616' is out of range (0 to "
                  "18446744073709551615 bytes)");
    expectFailure("--max-bytes 17179869184G ab.gz", "out of range");
    expectFailure("--max-bytes -1 ab.gz", "'-1' is not a byte count");
    expectFailure("--max-bytes 12x ab.gz", "'12x' is not a byte count");
    expectFailure("--max-bytes 1K ab.gz", "output would exceed 1024 bytes");
    EXPECT_LE(read("out").size(), 1024u);  // what streamed out before the refusal stays within
    expectFailure("a", "not a complete gzip or zlib stream");
    script(
        "head -c 100 a.gz > truncated.gz && cat ab.gz > trailing.gz && printf garbage >> "
        "trailing.gz");
    expectFailure("truncated.gz", "not a complete gzip or zlib stream");
    expectFailure("trailing.gz", "data after the end of the compressed data");
    expectFailure("absent.gz", "cannot read absent.gz");
}

TEST_F(GunzipCommandTest, AnOutputFileIsReplacedWholeOrNotAtAll) {
    auto files = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path() / "target"))
            names.push_back(entry.path().filename().string());
        return names;
    };
    std::filesystem::create_directory(dir_.path() / "target");
    script("printf old > target/file && head -c 100 ab.gz > truncated.gz");
    const std::vector<std::string> before = {"file"};

    // Bad input found half-way, and a disk that fills up (a file size limit here): the old file
    // stays as it was and no temporary file is left behind.
    expectFailure("truncated.gz -o target/file", "not a complete gzip or zlib stream");
    EXPECT_EQ(read("target/file"), "old");
    EXPECT_EQ(files(), before);
    int status = -1;
    auto out =
        script("(trap '' XFSZ; ulimit -f 8; \"$LMKIT\" gunzip ab.gz -o target/file) 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "lmkit gunzip: cannot write target/file: File too large\n");
    EXPECT_EQ(read("target/file"), "old");
    EXPECT_EQ(files(), before);

    script("\"$LMKIT\" gunzip ab.gz -o target/file", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read("target/file"), read("a") + read("b"));
    EXPECT_EQ(files(), before);
}
