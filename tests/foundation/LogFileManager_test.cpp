#include "lmkit/foundation/LogFileManager.hpp"

#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "lmkit/platform/AppGroup.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
namespace fs = std::filesystem;

namespace {
void touch(const fs::path& path, int minutesAgo) {
    std::ofstream(path) << "x\n";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
}
}  // namespace

TEST(LogFileManager, SharedStreamsAndTheirNames) {
    lmkit::testing::TempDir dir;
    AppGroup::setContainerDirectoryForTesting(dir.path() / "group");
    LogFileManager::setDefaultLogsDirectoryForTesting(dir.path() / "default");

    EXPECT_EQ(LogFileManager::app().prefix(), "op");
    EXPECT_EQ(LogFileManager::api().prefix(), "api");
    EXPECT_EQ(LogFileManager::tunnel().prefix(), "tunnel");
    EXPECT_EQ(LogFileManager::api().logsDirectory(), dir.path() / "default");
    EXPECT_EQ(LogFileManager::tunnel().logsDirectory(), dir.path() / "group" / "Logs");

    EXPECT_TRUE(std::regex_match(LogFileManager::app().newLogFileName(),
                                 std::regex(R"(op-\d{4}-\d{2}-\d{2}\.log)")));
    EXPECT_TRUE(LogFileManager::app().isLogFile("op-2024-01-31.log"));
    EXPECT_FALSE(LogFileManager::app().isLogFile("app-2024-01-31.log"));
    EXPECT_FALSE(LogFileManager::app().isLogFile("op-2024-01-31.txt"));
    EXPECT_TRUE(LogFileManager::tunnel().isLogFile(LogFileManager::tunnel().newLogFileName()));

    AppGroup::setContainerDirectoryForTesting({});
    LogFileManager::setDefaultLogsDirectoryForTesting({});
}

TEST(LogFileManager, KeepsTheFiveNewestFilesOfItsOwnStream) {
    lmkit::testing::TempDir dir;
    LogFileManager manager("op", dir.path());
    for (int day = 1; day <= 8; ++day) {
        touch(dir.path() / ("op-2024-01-0" + std::to_string(day) + ".log"), 100 - day);
    }
    touch(dir.path() / "api-2024-01-01.log", 500);  // another stream's file stays
    touch(dir.path() / "notes.txt", 500);

    auto sorted = manager.sortedLogFilePaths();
    ASSERT_EQ(sorted.size(), 8u);
    EXPECT_EQ(sorted.front().filename(), "op-2024-01-08.log");
    EXPECT_EQ(sorted.back().filename(), "op-2024-01-01.log");

    // The file being written is kept even when another file looks newer.
    touch(dir.path() / "op-2024-01-01.log", 0);
    touch(dir.path() / "op-2024-01-02.log", 200);
    manager.deleteOldLogFiles(dir.path() / "op-2024-01-02.log");
    std::vector<std::string> left;
    for (auto& path : manager.sortedLogFilePaths())
        left.push_back(path.filename().string());
    // Kept: the file being written plus the four newest others; listed newest first.
    EXPECT_EQ(left, (std::vector<std::string>{"op-2024-01-01.log", "op-2024-01-08.log",
                                              "op-2024-01-07.log", "op-2024-01-06.log",
                                              "op-2024-01-02.log"}));
    EXPECT_TRUE(fs::exists(dir.path() / "api-2024-01-01.log"));
    EXPECT_TRUE(fs::exists(dir.path() / "notes.txt"));

    LogFileManager missing("op", dir.path() / "absent");
    EXPECT_TRUE(missing.sortedLogFilePaths().empty());
    missing.deleteOldLogFiles();  // nothing to do, nothing thrown
}
