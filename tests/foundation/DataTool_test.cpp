// The crypt and digest subcommands of the lmkit tool, run as a person would, against openssl.
// (gzip and gunzip are checked against the system's gzip with the other tool commands.)
#include <gtest/gtest.h>

#include <filesystem>

#include "OpenSslCli.hpp"
#include "support/ToolCommandTest.hpp"

namespace lmkit {
namespace {

namespace cli = testing::openssl;

class DataToolTest : public testing::ToolCommandTest {
  protected:
    // Runs the tool with `arguments` (shell syntax); standard error goes to `stderrText`.
    std::string run(const std::string& arguments, int* status, std::string* stderrText = nullptr) {
        const auto errPath = dir_.path() / "stderr";
        std::string out = testing::runCommand(tool(arguments + " 2>" + errPath.string()), status);
        if (stderrText) {
            const Data err = cli::readFile(errPath);
            stderrText->assign(err.begin(), err.end());
        }
        return out;
    }

    std::filesystem::path file(const std::string& name) const { return dir_.path() / name; }
};

// One line on standard error, and exit code 1.
void expectOneLineFailure(int status, const std::string& err, const std::string& fragment) {
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find(fragment), std::string::npos) << err;
    ASSERT_FALSE(err.empty());
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

TEST_F(DataToolTest, CryptMatchesOpensslAndRefusesTheWrongKey) {
    int status = -1;
    const std::string sealed = run("crypt encrypt --key device-1 'hello world'", &status);
    ASSERT_EQ(status, 0);
    // AES-128-ECB under the MD5 of the short key, in base64 on one line.
    const std::string keyHex = cli::dgst("md5", bytes::toData("device-1"));
    const std::string reference =
        testing::runCommand("printf 'hello world' | openssl enc -aes-128-ecb -a -A -K " + keyHex);
    EXPECT_EQ(sealed, reference + "\n");

    EXPECT_EQ(run("crypt decrypt --key device-1 " + reference, &status), "hello world\n");
    EXPECT_EQ(status, 0);
    cli::writeFile(file("sealed"), bytes::toData(sealed));  // with its line break
    EXPECT_EQ(run("crypt decrypt --key device-1 < " + file("sealed").string(), &status),
              "hello world\n");

    std::string err;
    run("crypt decrypt --key device-2 " + reference, &status, &err);
    expectOneLineFailure(status, err, "wrong key");
    run("crypt decrypt --key device-1 'not base64!'", &status, &err);
    expectOneLineFailure(status, err, "cannot decrypt");
}

TEST_F(DataToolTest, DigestMatchesOpensslForFilesStdinAndHmac) {
    const Data data = bytes::toData("payload to digest\n");
    cli::writeFile(file("data"), data);
    int status = -1;
    for (const std::string algorithm : {"md5", "sha1", "sha256", "sha512"}) {
        EXPECT_EQ(run("digest " + algorithm + " " + file("data").string(), &status),
                  cli::dgst(algorithm, data) + "\n");
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(run("digest sha256 < " + file("data").string(), &status),
              cli::dgst("sha256", data) + "\n");
    EXPECT_EQ(run("digest sha1 --hmac-key secret " + file("data").string(), &status),
              cli::dgst("sha1", data, cli::hex(bytes::toData("secret"))) + "\n");

    std::string err;
    run("digest sha256 " + file("absent").string(), &status, &err);
    expectOneLineFailure(status, err, "absent");
    run("digest sha3 " + file("data").string(), &status, &err);
    expectOneLineFailure(status, err, "sha3");
}

}  // namespace
}  // namespace lmkit
