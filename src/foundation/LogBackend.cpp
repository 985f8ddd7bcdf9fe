#include "foundation/LogBackend.hpp"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "lmkit/foundation/LogFileManager.hpp"
#include "lmkit/foundation/LogFormatter.hpp"

namespace lmkit::log {

namespace {

namespace fs = std::filesystem;

std::atomic<bool> gFileLogging{true};
std::atomic<unsigned> gStderrMask{0};
std::mutex gStderrMutex;  // keeps lines from different threads whole on standard error

// The open file of one stream. Lines are appended and flushed one by one under the mutex, so
// a line is never interleaved with another and survives a crash right after it was logged.
struct StreamFile {
    std::mutex mutex;
    std::FILE* file = nullptr;  // guarded by mutex
    fs::path path;              // guarded by mutex: the file that `file` writes

    void close() {
        if (file)
            std::fclose(file);
        file = nullptr;
        path.clear();
    }
};

StreamFile gFiles[3];

StreamFile& fileFor(Stream stream) {
    return gFiles[static_cast<int>(stream)];
}

LogFileManager& managerFor(Stream stream) {
    switch (stream) {
        case Stream::Api:
            return LogFileManager::api();
        case Stream::Tunnel:
            return LogFileManager::tunnel();
        case Stream::App:
            break;
    }
    return LogFileManager::app();
}

const LogFormatter& formatter() {
    static const LogFormatter shared(kAllLevels);
    return shared;
}

void appendToFile(Stream stream, const std::string& line) {
    LogFileManager& manager = managerFor(stream);
    // Today's name, in the folder as it is now: a new day or a moved folder starts a new file.
    fs::path path = manager.logsDirectory() / manager.newLogFileName();

    StreamFile& target = fileFor(stream);
    std::lock_guard lock(target.mutex);
    if (!target.file || target.path != path) {
        target.close();
        std::error_code ignored;
        fs::create_directories(path.parent_path(), ignored);
        target.file = std::fopen(path.c_str(), "a");
        if (!target.file)
            return;  // unwritable folder: the line is lost, the caller is not
        target.path = path;
        manager.deleteOldLogFiles(path);
    }
    std::fwrite(line.data(), 1, line.size(), target.file);
    std::fputc('\n', target.file);
    std::fflush(target.file);
}

}  // namespace

void setFileLoggingEnabled(bool enabled) {
    gFileLogging.store(enabled);
    if (!enabled)
        detail::closeStreams();
}
bool isFileLoggingEnabled() {
    return gFileLogging.load();
}

void setStderrLevel(unsigned mask) {
    gStderrMask.store(mask);
}
unsigned stderrLevel() {
    return gStderrMask.load();
}

namespace detail {

void deliverToStreams(const LogMessage& message) {
    const bool toFile = gFileLogging.load();
    const bool toStderr = (message.flag & gStderrMask.load()) != 0;
    if (!toFile && !toStderr)
        return;

    auto line = formatter().format(message);
    if (!line)
        return;
    if (toStderr) {
        std::lock_guard lock(gStderrMutex);
        std::fprintf(stderr, "%s\n", line->c_str());
    }
    if (toFile)
        appendToFile(message.stream, *line);
}

void closeStreams() {
    for (auto& target : gFiles) {
        std::lock_guard lock(target.mutex);
        target.close();
    }
}

}  // namespace detail
}  // namespace lmkit::log
