#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lmkit {

/// Names, recognises and limits the log files of one log stream.
///
/// Files are named "<prefix>-yyyy-MM-dd.log" (local date), one per calendar day; a day's file that
/// outgrows maximumFileSize() rolls to "<prefix>-yyyy-MM-dd.1.log". A stream keeps at most
/// maximumNumberOfLogFiles() files of either kind: the oldest are deleted when a new one is
/// started. Three shared managers exist:
///
///   app()    prefix "op" (not "app": existing files are recognised by it), default folder
///   api()    prefix "api", default folder
///   tunnel() prefix "tunnel", AppGroup::sharedLogDirectory(), where both processes reach it
///
/// The default folder is per user: $LMKIT_LOG_DIR if set, else $XDG_STATE_HOME/lmkit/Logs, else
/// ~/.local/state/lmkit/Logs.
class LogFileManager {
  public:
    /// How many files a stream keeps: enough for a few days of history, small enough for a phone.
    static constexpr std::size_t kDefaultMaximumNumberOfLogFiles = 5;

    /// `folder` nil means the default folder.
    LogFileManager(std::string prefix, std::optional<std::filesystem::path> folder);
    LogFileManager(const LogFileManager&) = delete;
    LogFileManager& operator=(const LogFileManager&) = delete;

    static LogFileManager& app();
    static LogFileManager& api();
    static LogFileManager& tunnel();

    const std::string& prefix() const { return prefix_; }
    /// The folder given at creation (for tunnel(), the app group's log directory as it is now);
    /// nil for the default folder.
    std::optional<std::filesystem::path> folder() const;
    /// The directory this stream's files live in: folder(), else the default folder.
    std::filesystem::path logsDirectory() const;

    /// The default folder of the app and API streams (see the class comment).
    static std::filesystem::path defaultLogsDirectory();
    /// Points the default folder elsewhere (tests); an empty path restores the environment's.
    static void setDefaultLogsDirectoryForTesting(const std::filesystem::path& directory);

    /// How large a file grows before the stream rolls to a new one within the same day
    /// ("<prefix>-yyyy-MM-dd.1.log" and so on, the newest rolled file numbered 1).
    static constexpr std::size_t kDefaultMaximumFileSize = 1024 * 1024;
    std::size_t maximumFileSize() const { return maximumFileSize_.load(); }
    void setMaximumFileSize(std::size_t bytes) { maximumFileSize_.store(bytes ? bytes : 1); }

    /// 0 means no limit.
    std::size_t maximumNumberOfLogFiles() const { return maximum_.load(); }
    void setMaximumNumberOfLogFiles(std::size_t maximum) { maximum_.store(maximum); }

    /// "<prefix>-<today, yyyy-MM-dd>.log".
    std::string newLogFileName() const;
    /// True when `name` starts with prefix() and ends with ".log".
    bool isLogFile(std::string_view name) const;

    /// This stream's files in logsDirectory(), newest (latest modification) first.
    std::vector<std::filesystem::path> sortedLogFilePaths() const;
    /// Deletes all but the newest maximumNumberOfLogFiles() files; `keep` (the file being
    /// written) is never deleted and counts as the newest. Failures are ignored: a file that
    /// cannot be deleted is retried next time.
    void deleteOldLogFiles(const std::filesystem::path& keep = {}) const;

  private:
    LogFileManager(std::string prefix, std::function<std::filesystem::path()> folderSource);

    std::string prefix_;
    std::optional<std::filesystem::path> folder_;
    std::function<std::filesystem::path()> folderSource_;  // set for folders that can move
    std::atomic<std::size_t> maximum_{kDefaultMaximumNumberOfLogFiles};
    std::atomic<std::size_t> maximumFileSize_{kDefaultMaximumFileSize};
};

}  // namespace lmkit
