#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/foundation/LogFileManager.hpp"
#include "support/ToolCommandTest.hpp"

namespace fs = std::filesystem;

namespace {

using LogsCommandTest = lmkit::testing::ToolCommandTest;

}  // namespace

TEST_F(LogsCommandTest, PathNamesTheThreeFolders) {
    int status = -1;
    auto out = nlohmann::json::parse(run("logs path --json", &status));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0]["prefix"], "op");
    EXPECT_EQ(out[0]["folder"], (dir_.path() / "logs").string());
    EXPECT_EQ(out[1]["stream"], "api");
    EXPECT_EQ(out[2]["folder"], (dir_.path() / "group" / "Logs").string());

    auto text = run("logs path", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(text.find("tunnel  tunnel  " + (dir_.path() / "group" / "Logs").string()),
              std::string::npos)
        << text;
}

TEST_F(LogsCommandTest, ListShowsOnlyEachStreamsFilesNewestFirst) {
    fs::create_directories(dir_.path() / "logs");
    auto now = fs::file_time_type::clock::now();
    std::ofstream(dir_.path() / "logs" / "op-2024-01-30.log") << "a\n";
    std::ofstream(dir_.path() / "logs" / "op-2024-01-31.log") << "bb\n";
    std::ofstream(dir_.path() / "logs" / "api-2024-01-31.log") << "c\n";
    std::ofstream(dir_.path() / "logs" / "readme.txt") << "not a log\n";
    fs::last_write_time(dir_.path() / "logs" / "op-2024-01-30.log", now - std::chrono::hours(24));

    int status = -1;
    auto out = nlohmann::json::parse(run("logs list --json", &status));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(out[0]["files"].size(), 2u);
    EXPECT_EQ(out[0]["files"][0]["name"], "op-2024-01-31.log");
    EXPECT_EQ(out[0]["files"][0]["size"], 3);
    EXPECT_EQ(out[0]["files"][1]["name"], "op-2024-01-30.log");
    ASSERT_EQ(out[1]["files"].size(), 1u);
    EXPECT_TRUE(out[2]["files"].empty());

    auto error = run("logs bogus", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(error.rfind("lmkit", 0), 0u) << error;  // one clear line on stderr
}
