#include "foundation/LogBackend.hpp"

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "lmkit/foundation/LogFileManager.hpp"
#include "lmkit/foundation/LogFormatter.hpp"
#include "lmkit/foundation/LogProcessStream.hpp"

namespace lmkit::log {

namespace {

namespace fs = std::filesystem;

std::atomic<bool> gFileLogging{true};
std::atomic<unsigned> gStderrMask{0};
// Debug and verbose lines cost a formatted line per node and probe on large runs; the files keep
// them only when asked (LMKIT_LOG_LEVEL=debug or setFileLevel()).
std::atomic<unsigned> gFileMask{[] {
    const char* level = std::getenv("LMKIT_LOG_LEVEL");
    std::string_view name = level ? level : "";
    if (name == "verbose")
        return kAllLevels;
    if (name == "debug")
        return kAllLevels & ~unsigned(kVerbose);
    return unsigned(kError | kWarning | kInfo);
}()};
std::mutex gStderrMutex;  // keeps lines from different threads whole on standard error

std::atomic<Stream> gProcessStream{Stream::App};

// The open file of one stream: spdlog's rotating sink starts "<name>.1.log" when the day's file
// outgrows the stream's size limit, and a new day starts a new sink. Lines are written and
// flushed one by one under the mutex, so a line is never interleaved with another and survives a
// crash right after it was logged.
struct StreamFile {
    std::mutex mutex;
    std::shared_ptr<spdlog::sinks::rotating_file_sink_st> sink;  // guarded by mutex
    fs::path path;            // guarded by mutex: the day's file that `sink` writes
    std::uintmax_t size = 0;  // guarded by mutex: bytes in that file, to see when it rolls

    void close() {
        sink.reset();
        path.clear();
        size = 0;
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

// Log lines can carry addresses and tokens: the files are the user's alone, whatever the umask
// (the tunnel's stream lives in the container the app shares with its tunnel).
void keepPrivate(const fs::path& path) {
    ::chmod(path.c_str(), S_IRUSR | S_IWUSR);
}

void appendToFile(Stream stream, const std::string& line) {
    LogFileManager& manager = managerFor(stream);
    // Today's name, in the folder as it is now: a new day or a moved folder starts a new file.
    fs::path path = manager.logsDirectory() / manager.newLogFileName();
    const std::size_t limit = manager.maximumFileSize();

    StreamFile& target = fileFor(stream);
    std::lock_guard lock(target.mutex);
    try {
        if (!target.sink || target.path != path) {
            target.close();
            std::error_code ec;
            fs::create_directories(path.parent_path(), ec);
            const std::size_t kept = manager.maximumNumberOfLogFiles();
            // Rolled files of one day count against the stream's limit like other days' files;
            // deleteOldLogFiles keeps the newest across both.
            target.sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(
                path.string(), limit, kept == 0 ? 1000 : std::max<std::size_t>(kept, 1));
            target.sink->set_pattern("%v");
            target.path = path;
            target.size = fs::file_size(path, ec);
            keepPrivate(path);
            manager.deleteOldLogFiles(path);
        }
        const std::size_t bytes = line.size() + 1;
        const bool rolls = target.size > 0 && target.size + bytes > limit;
        spdlog::details::log_msg message(spdlog::source_loc{}, {}, spdlog::level::info, line);
        target.sink->log(message);
        target.sink->flush();
        target.size = rolls ? bytes : target.size + bytes;
        if (rolls) {
            keepPrivate(path);  // the sink opened a fresh file under the day's name
            manager.deleteOldLogFiles(path);
        }
    } catch (const std::exception&) {
        target.close();  // unwritable folder or full disk: the line is lost, the caller is not
    }
}

}  // namespace

void setProcessStream(Stream stream) {
    gProcessStream.store(stream);
}
Stream processStream() {
    return gProcessStream.load();
}

void setFileLoggingEnabled(bool enabled) {
    gFileLogging.store(enabled);
    if (!enabled)
        detail::closeStreams();
}
bool isFileLoggingEnabled() {
    return gFileLogging.load();
}

void setFileLevel(unsigned mask) {
    gFileMask.store(mask);
}
unsigned fileLevel() {
    return gFileMask.load();
}

bool detail::streamsAccept(unsigned flag) {
    return (gFileLogging.load() && (flag & gFileMask.load()) != 0) ||
           (flag & gStderrMask.load()) != 0;
}

void setStderrLevel(unsigned mask) {
    gStderrMask.store(mask);
}
unsigned stderrLevel() {
    return gStderrMask.load();
}

namespace detail {

void deliverToStreams(const LogMessage& message) {
    const bool toFile = gFileLogging.load() && (message.flag & gFileMask.load()) != 0;
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
    if (toFile) {
        const Stream stream =
            message.stream == Stream::App ? gProcessStream.load() : message.stream;
        appendToFile(stream, *line);
    }
}

void closeStreams() {
    for (auto& target : gFiles) {
        std::lock_guard lock(target.mutex);
        target.close();
    }
}

}  // namespace detail
}  // namespace lmkit::log
