#include "lmkit/foundation/LogFormatter.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

#include <fmt/format.h>

namespace lmkit {

namespace {

// "yyyy-MM-dd HH:mm:ss.SSS" in local time.
std::string formatDate(std::chrono::system_clock::time_point timestamp) {
    using namespace std::chrono;
    auto since = timestamp.time_since_epoch();
    auto seconds = floor<std::chrono::seconds>(since);
    auto millis = duration_cast<milliseconds>(since - seconds).count();
    std::time_t t = static_cast<std::time_t>(seconds.count());
    std::tm local{};
    localtime_r(&t, &local);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                       millis);
}

const char* levelTag(unsigned flag) {
    switch (flag) {
        case log::kError:
            return "[E]";
        case log::kWarning:
            return "[W\xEF\xB8\x8F]";
        case log::kInfo:
            return "[I\xEF\xB8\x8F]";
        case log::kDebug:
            return "[D]";
        case log::kVerbose:
            return "[V]";
        default:
            return nullptr;
    }
}

// Names a thread that has neither a name nor a queue: the main thread, or its kernel id.
std::string currentThreadDescription() {
    auto tid = static_cast<long>(syscall(SYS_gettid));
    if (tid == static_cast<long>(getpid()))
        return "main";
    return fmt::format("thread {}", tid);
}

std::string lastPathComponent(const std::string& path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

LogFormatter::LogFormatter(unsigned level) : level_(level) {}

std::optional<std::string> LogFormatter::format(const log::LogMessage& message) const {
    if (!isOnAllowlist(message.context))
        return std::nullopt;

    const char* tag = levelTag(message.flag & level_);
    if (!tag)
        return std::nullopt;

    std::string line;
    line.reserve(message.message.size() + 64);
    if (showDate_) {
        line += formatDate(message.timestamp);
        line += ' ';
    }
    line += tag;
    if (showThreadName_) {
        line += '[';
        if (!message.threadName.empty()) {
            line += message.threadName;
        } else if (!message.queueLabel.empty()) {
            line += message.queueLabel;
        } else {
            line += currentThreadDescription();
        }
        line += ']';
    }
    if (showFileName_) {
        line += '[';
        line += lastPathComponent(message.file);
        if (showLineNumber_)
            line += fmt::format(":{}", message.line);
        line += ']';
    } else if (showLineNumber_) {
        // Without the file name the number stands alone, followed by a space.
        line += fmt::format("[{}] ", message.line);
    }
    if (showFunctionName_ && !message.function.empty()) {
        line += '[';
        line += message.function;
        line += ']';
    }
    line += " > ";
    line += message.message;
    return line;
}

}  // namespace lmkit
