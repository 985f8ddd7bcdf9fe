// Output that cannot be written is a failure: every subcommand writing to a full device says so
// in one line and exits 1.
#include <string>

#include <gtest/gtest.h>

#include "support/ToolCommandTest.hpp"

namespace {
using OutputErrorsTest = lmkit::testing::ToolCommandTest;
}  // namespace

TEST_F(OutputErrorsTest, EverySubcommandWritingToAFullDeviceFails) {
    int status = -1;
    script(
        "seq 1 5000 > data && gzip -k data && \"$LMKIT\" settings set LMLastPingKey 7 && "
        "\"$LMKIT\" channel send network-change && printf '{\"gid\":\"1\"}' > game.json",
        &status);
    ASSERT_EQ(status, 0);

    for (const char* command :
         {"--help", "digest sha256 data", "decode Game game.json", "env", "settings list",
          "settings get LMLastPingKey", "gzip data", "gunzip data.gz", "crypt encrypt --key k text",
          "channel listen --current --timeout 0.01"}) {
        auto err = script(std::string("\"$LMKIT\" ") + command + " 2>&1 >/dev/full", &status);
        EXPECT_EQ(status, 1) << command;
        EXPECT_NE(err.find("cannot write standard output"), std::string::npos)
            << command << ": " << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << command << ": " << err;
    }
}
