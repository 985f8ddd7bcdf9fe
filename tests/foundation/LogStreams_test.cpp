// test-labels: concurrency
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/LogBackend.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/LogFileManager.hpp"
#include "lmkit/foundation/LogProcessStream.hpp"
#include "lmkit/platform/AppGroup.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> linesOf(const fs::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Every test writes into its own directories, never into the user's real log folder.
class LogStreamsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        AppGroup::setContainerDirectoryForTesting(dir_.path() / "group");
        LogFileManager::setDefaultLogsDirectoryForTesting(dir_.path() / "logs");
        log::setFileLoggingEnabled(true);
    }
    void TearDown() override {
        log::setFileLoggingEnabled(false);
        log::setStderrLevel(0);
        AppGroup::setContainerDirectoryForTesting({});
        LogFileManager::setDefaultLogsDirectoryForTesting({});
    }
    fs::path fileOf(LogFileManager& manager) {
        return manager.logsDirectory() / manager.newLogFileName();
    }
    lmkit::testing::TempDir dir_;
};

}  // namespace

TEST_F(LogStreamsTest, EachStreamWritesFormattedLinesToTodaysFile) {
    log::info("[NodeSelector] picked node 3");
    log::warning("[API] slow answer", log::Stream::Api);
    log::error("[TProxy] closed", log::Stream::Tunnel);
    // The tunnel process's own lines join the tunnel stream; API lines keep theirs.
    log::setProcessStream(log::Stream::Tunnel);
    log::info("[Tunnel] started");
    log::info("[API] from the tunnel", log::Stream::Api);
    log::setProcessStream(log::Stream::App);

    auto app = linesOf(dir_.path() / "logs" / LogFileManager::app().newLogFileName());
    ASSERT_EQ(app.size(), 1u);
    EXPECT_TRUE(endsWith(app[0], " [I\xEF\xB8\x8F][main] > [NodeSelector] picked node 3"))
        << app[0];
    EXPECT_EQ(app[0][4], '-');  // starts with the date

    auto api = linesOf(fileOf(LogFileManager::api()));
    ASSERT_EQ(api.size(), 2u);
    EXPECT_TRUE(endsWith(api[0], "[W\xEF\xB8\x8F][main] > [API] slow answer")) << api[0];

    auto tunnel =
        linesOf(dir_.path() / "group" / "Logs" / LogFileManager::tunnel().newLogFileName());
    ASSERT_EQ(tunnel.size(), 2u);
    EXPECT_TRUE(endsWith(tunnel[0], "[E][main] > [TProxy] closed")) << tunnel[0];
    EXPECT_TRUE(endsWith(tunnel[1], "> [Tunnel] started")) << tunnel[1];
}

TEST_F(LogStreamsTest, QueueLabelNamesLinesFromPoolThreads) {
    auto queue = DispatchQueue::serial("com.lmkit.test.logqueue");
    // Debug lines reach the files only when the file level asks for them.
    queue.sync([] { log::debug("not in the file"); });
    EXPECT_FALSE(log::isEnabled(log::kDebug));
    const unsigned saved = log::fileLevel();
    log::setFileLevel(log::kAllLevels);
    EXPECT_TRUE(log::isEnabled(log::kDebug));
    queue.sync([] { log::debug("from the queue"); });
    log::setFileLevel(saved);
    auto lines = linesOf(fileOf(LogFileManager::app()));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(endsWith(lines[0], "[D][com.lmkit.test.logqueue] > from the queue")) << lines[0];
}

TEST_F(LogStreamsTest, DisabledFileLoggingWritesNothingAndStderrFollowsItsMask) {
    log::setFileLoggingEnabled(false);
    log::setStderrLevel(log::kError);
    ::testing::internal::CaptureStderr();
    log::info("not on stderr");
    log::error("on stderr");
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("not on stderr"), std::string::npos);
    EXPECT_NE(err.find("[E][main] > on stderr\n"), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(fileOf(LogFileManager::app())));
}

TEST_F(LogStreamsTest, FilesRollByDayAndBySizeAndTheStreamKeepsFive) {
    fs::create_directories(dir_.path() / "logs");
    for (int day = 1; day <= 6; ++day) {
        auto path = dir_.path() / "logs" / ("op-2020-01-0" + std::to_string(day) + ".log");
        std::ofstream(path) << "old\n";
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(24 * day));
    }
    log::detail::closeStreams();  // the next line opens today's file
    log::info("new day");
    auto files = LogFileManager::app().sortedLogFilePaths();
    ASSERT_EQ(files.size(), 5u);
    EXPECT_EQ(files.front(), fileOf(LogFileManager::app()));
    EXPECT_FALSE(fs::exists(dir_.path() / "logs" / "op-2020-01-05.log"));
    EXPECT_TRUE(fs::exists(dir_.path() / "logs" / "op-2020-01-04.log"));

    // A day that outgrows the size limit rolls within the day; rolled files count against the
    // five, and the newest lines are all kept.
    log::detail::closeStreams();
    LogFileManager::app().setMaximumFileSize(1000);
    const std::string filler(200, 'x');
    for (int i = 0; i < 40; ++i)
        log::info("line " + std::to_string(i) + " " + filler);
    LogFileManager::app().setMaximumFileSize(LogFileManager::kDefaultMaximumFileSize);
    log::detail::closeStreams();
    files = LogFileManager::app().sortedLogFilePaths();
    ASSERT_EQ(files.size(), 5u);
    for (const auto& file : files)
        EXPECT_EQ(file.filename().string().rfind("op-2020", 0), std::string::npos) << file;
    EXPECT_LE(fs::file_size(fileOf(LogFileManager::app())), 1000u);
    auto rolled = fs::path(fileOf(LogFileManager::app())).replace_extension(".1.log");
    ASSERT_TRUE(fs::exists(rolled));
    auto newest = linesOf(fileOf(LogFileManager::app()));
    ASSERT_FALSE(newest.empty());
    EXPECT_NE(newest.back().find("line 39 "), std::string::npos);
    auto before = linesOf(rolled);
    ASSERT_FALSE(before.empty());
    const auto firstNewest = newest.front().substr(newest.front().find("line "));
    const auto lastRolled = before.back().substr(before.back().find("line "));
    EXPECT_EQ(std::stoi(lastRolled.substr(5)) + 1, std::stoi(firstNewest.substr(5)));
}

TEST_F(LogStreamsTest, LinesFromManyThreadsStayWhole) {
    constexpr int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                log::info("writer " + std::to_string(t) + " line " + std::to_string(i) +
                          std::string(50, 'x'));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    auto lines = linesOf(fileOf(LogFileManager::app()));
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    for (auto& line : lines)
        ASSERT_TRUE(endsWith(line, std::string(50, 'x'))) << line;
}

TEST_F(LogStreamsTest, UnwritableFolderLosesTheLineNotTheCaller) {
    std::ofstream(dir_.path() / "blocker") << "a file where a folder should be";
    LogFileManager::setDefaultLogsDirectoryForTesting(dir_.path() / "blocker" / "logs");
    EXPECT_NO_THROW(log::error("nowhere to go"));
    LogFileManager::setDefaultLogsDirectoryForTesting(dir_.path() / "logs");
    log::error("back again");
    EXPECT_EQ(linesOf(fileOf(LogFileManager::app())).size(), 1u);
}
