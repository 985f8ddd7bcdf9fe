#include "lmkit/foundation/LogFormatter.hpp"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

using namespace lmkit;
using namespace std::chrono;

namespace {

class LogFormatterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Dates are local time: pin the zone so the expected text does not depend on the host.
        setenv("TZ", "UTC", 1);
        tzset();
    }

    static log::LogMessage message(unsigned flag) {
        log::LogMessage m;
        m.message = "node selected";
        m.flag = flag;
        m.timestamp = sys_days{year{2024} / 1 / 31} + 8h + 15min + 2s + 117ms;
        m.queueLabel = "com.example.queue";
        m.file = "/src/nodes/NodeSelector.cpp";
        m.function = "pickBestNodeFromNodes";
        m.line = 42;
        return m;
    }
};

}  // namespace

TEST_F(LogFormatterTest, DefaultLineHasDateTagQueueAndText) {
    LogFormatter formatter(log::kAllLevels);
    EXPECT_EQ(formatter.format(message(log::kInfo)),
              "2024-01-31 08:15:02.117 [I\xEF\xB8\x8F][com.example.queue] > node selected");

    auto withThread = message(log::kDebug);
    withThread.threadName = "probe-thread";  // a thread's own name wins over the queue label
    EXPECT_EQ(formatter.format(withThread),
              "2024-01-31 08:15:02.117 [D][probe-thread] > node selected");
}

TEST_F(LogFormatterTest, OnlyWarningAndInfoTagsCarryTheVariationSelector) {
    LogFormatter formatter(log::kAllLevels);
    formatter.setShowDate(false);
    formatter.setShowThreadName(false);
    EXPECT_EQ(formatter.format(message(log::kError)), "[E] > node selected");
    EXPECT_EQ(formatter.format(message(log::kWarning)),
              std::string("\x5B\x57\xEF\xB8\x8F\x5D > node selected"));
    EXPECT_EQ(formatter.format(message(log::kInfo)),
              std::string("\x5B\x49\xEF\xB8\x8F\x5D > node selected"));
    EXPECT_EQ(formatter.format(message(log::kDebug)), "[D] > node selected");
    EXPECT_EQ(formatter.format(message(log::kVerbose)), "[V] > node selected");
}

TEST_F(LogFormatterTest, FlagsOutsideTheMaskOrSeveralFlagsGiveNoLine) {
    LogFormatter formatter(log::kError | log::kWarning);
    EXPECT_TRUE(formatter.format(message(log::kWarning)).has_value());
    EXPECT_EQ(formatter.format(message(log::kInfo)), std::nullopt);
    EXPECT_EQ(formatter.format(message(log::kError | log::kWarning)), std::nullopt);
    EXPECT_EQ(formatter.format(message(0)), std::nullopt);
    // Only the masked part counts: info|error under an error-only mask is an error line.
    LogFormatter errorsOnly(log::kError);
    errorsOnly.setShowDate(false);
    errorsOnly.setShowThreadName(false);
    EXPECT_EQ(errorsOnly.format(message(log::kError | log::kInfo)), "[E] > node selected");
}

TEST_F(LogFormatterTest, FileLineAndFunctionSwitches) {
    LogFormatter formatter;
    formatter.setShowDate(false);
    formatter.setShowThreadName(false);
    auto m = message(log::kError);

    formatter.setShowLineNumber(true);
    formatter.setShowFunctionName(true);
    EXPECT_EQ(formatter.format(m), "[E][42] [pickBestNodeFromNodes] > node selected");

    formatter.setShowFileName(true);
    EXPECT_EQ(formatter.format(m),
              "[E][NodeSelector.cpp:42][pickBestNodeFromNodes] > node selected");

    formatter.setShowLineNumber(false);
    m.function.clear();  // no function name: no function part
    EXPECT_EQ(formatter.format(m), "[E][NodeSelector.cpp] > node selected");
}

TEST_F(LogFormatterTest, ThreadDescriptionWhenThereIsNoNameOrQueue) {
    LogFormatter formatter;
    formatter.setShowDate(false);
    auto m = message(log::kVerbose);
    m.queueLabel.clear();
    // The test body runs on the process's main thread.
    EXPECT_EQ(formatter.format(m), "[V][main] > node selected");
}

TEST_F(LogFormatterTest, AllowlistSelectsContexts) {
    LogFormatter formatter;
    auto m = message(log::kInfo);
    m.context = 7;
    EXPECT_TRUE(formatter.format(m).has_value());  // empty allowlist: everything passes
    formatter.addToAllowlist(3);
    EXPECT_EQ(formatter.format(m), std::nullopt);
    formatter.addToAllowlist(7);
    EXPECT_TRUE(formatter.formatLogMessage(m).has_value());
}
