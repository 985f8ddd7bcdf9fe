#include "lmkit/foundation/LogFileManager.hpp"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <system_error>

#include <fmt/format.h>

#include "lmkit/platform/AppGroup.hpp"

namespace lmkit {

namespace fs = std::filesystem;

namespace {

std::mutex gDefaultMutex;
fs::path gDefaultOverride;  // guarded by gDefaultMutex

fs::path defaultFromEnvironment() {
    if (const char* dir = std::getenv("LMKIT_LOG_DIR"); dir && *dir)
        return dir;
    if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
        return fs::path(state) / "lmkit" / "Logs";
    const char* home = std::getenv("HOME");
    return fs::path(home && *home ? home : "/tmp") / ".local" / "state" / "lmkit" / "Logs";
}

std::string today() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return fmt::format("{:04}-{:02}-{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

}  // namespace

LogFileManager::LogFileManager(std::string prefix, std::optional<fs::path> folder)
    : prefix_(std::move(prefix)), folder_(std::move(folder)) {}

LogFileManager::LogFileManager(std::string prefix, std::function<fs::path()> folderSource)
    : prefix_(std::move(prefix)), folderSource_(std::move(folderSource)) {}

LogFileManager& LogFileManager::app() {
    static LogFileManager manager("op", std::optional<fs::path>());
    return manager;
}

LogFileManager& LogFileManager::api() {
    static LogFileManager manager("api", std::optional<fs::path>());
    return manager;
}

LogFileManager& LogFileManager::tunnel() {
    // Asked each time: the app group's container can be pointed elsewhere after start-up.
    static LogFileManager manager("tunnel",
                                  std::function<fs::path()>(&AppGroup::sharedLogDirectory));
    return manager;
}

std::optional<fs::path> LogFileManager::folder() const {
    if (folderSource_)
        return folderSource_();
    return folder_;
}

fs::path LogFileManager::logsDirectory() const {
    if (auto chosen = folder())
        return *chosen;
    return defaultLogsDirectory();
}

fs::path LogFileManager::defaultLogsDirectory() {
    {
        std::lock_guard lock(gDefaultMutex);
        if (!gDefaultOverride.empty())
            return gDefaultOverride;
    }
    return defaultFromEnvironment();
}

void LogFileManager::setDefaultLogsDirectoryForTesting(const fs::path& directory) {
    std::lock_guard lock(gDefaultMutex);
    gDefaultOverride = directory;
}

std::string LogFileManager::newLogFileName() const {
    return prefix_ + "-" + today() + ".log";
}

bool LogFileManager::isLogFile(std::string_view name) const {
    return name.starts_with(prefix_) && name.ends_with(".log");
}

std::vector<fs::path> LogFileManager::sortedLogFilePaths() const {
    struct Entry {
        fs::path path;
        fs::file_time_type modified;
    };
    std::vector<Entry> entries;
    std::error_code error;
    for (fs::directory_iterator it(logsDirectory(), error), end; !error && it != end;
         it.increment(error)) {
        std::error_code statError;
        if (!it->is_regular_file(statError))
            continue;
        if (!isLogFile(it->path().filename().string()))
            continue;
        auto modified = it->last_write_time(statError);
        if (statError)
            continue;
        entries.push_back({it->path(), modified});
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        if (a.modified != b.modified)
            return a.modified > b.modified;
        return a.path.filename() > b.path.filename();  // dated names: later day first
    });
    std::vector<fs::path> paths;
    paths.reserve(entries.size());
    for (auto& entry : entries)
        paths.push_back(std::move(entry.path));
    return paths;
}

void LogFileManager::deleteOldLogFiles(const fs::path& keep) const {
    auto paths = sortedLogFilePaths();
    if (!keep.empty()) {
        auto kept = std::find(paths.begin(), paths.end(), keep);
        if (kept != paths.end())
            std::rotate(paths.begin(), kept, kept + 1);
    }
    const std::size_t maximum = maximumNumberOfLogFiles();
    if (maximum == 0)
        return;  // no limit
    for (std::size_t i = maximum; i < paths.size(); ++i) {
        std::error_code ignored;
        fs::remove(paths[i], ignored);
    }
}

}  // namespace lmkit
