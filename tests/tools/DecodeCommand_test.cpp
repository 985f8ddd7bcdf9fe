#include <algorithm>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/ToolCommandTest.hpp"

namespace {

class DecodeCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    std::string run(const std::string& args, int* status, bool withStderr = false) {
        return lmkit::testing::runCommand(
            tool("decode " + args + (withStderr ? " 2>&1" : " 2>/dev/null")), status);
    }
};

}  // namespace

TEST_F(DecodeCommandTest, ShowsPropertiesValuesKeptAsTheyStandAndIgnoredKeys) {
    int status = -1;
    auto doc = write(R"({"gid":101,"name":"G","online":"1","grade":"3","tracking":{"a":1},
                        "game_extra":{"unknown":true}})",
                     "doc.json");
    auto out = nlohmann::json::parse(run("Game --json " + doc, &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(out["type"], "Game");
    EXPECT_EQ(out["properties"]["gid"], 101);
    EXPECT_EQ(out["properties"]["name"], "G");
    EXPECT_EQ(out["keptAsTheyStand"]["isOnline"], "1");
    EXPECT_EQ(out["keptAsTheyStand"]["grade"], "3");
    EXPECT_EQ(out["ignoredKeys"], nlohmann::json::parse(R"(["tracking"])"));

    auto table = run("Game " + doc, &status);
    ASSERT_EQ(status, 0);
    EXPECT_NE(table.find("kept as it stands"), std::string::npos) << table;
    EXPECT_NE(table.find("ignored keys: tracking"), std::string::npos) << table;
}

TEST_F(DecodeCommandTest, BadInputIsOneLineAndExitOne) {
    for (const std::string& args :
         {std::string("Game /dev/zero --max-bytes 100000"),
          // A regular file is mapped, not read: its limit and an empty one still fail cleanly.
          "Game " + write(R"({"gid":101,"name":"a name longer than the limit"})", "big.json") +
              " --max-bytes 20",
          "Game " + write("", "nothing.json"), "Game " + write("{\"gid\":", "cut.json"),
          "NoSuchType " + write("{}", "empty.json"),
          "AccAPIResponseObject " + write(R"({"acc":[1]})", "doc.json")}) {
        int status = -1;
        auto out = run(args, &status, true);
        EXPECT_EQ(status, 1) << args;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << args << ": " << out;
    }
}
