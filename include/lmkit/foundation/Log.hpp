#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lmkit::log {

/// Level flags; a level mask is an OR of them.
enum Flag : unsigned { kError = 1, kWarning = 2, kInfo = 4, kDebug = 8, kVerbose = 16 };
inline constexpr unsigned kAllLevels = kError | kWarning | kInfo | kDebug | kVerbose;

/// The three log streams: the app ("op"), the API client ("api") and the tunnel ("tunnel").
enum class Stream { App, Api, Tunnel };

/// One message as the kit hands it to the log streams.
struct LogMessage {
    std::string message;
    unsigned flag = kInfo;
    std::chrono::system_clock::time_point timestamp;
    std::string threadName;  // the OS thread's name, when it has one
    std::string queueLabel;  // the label of the dispatch queue running the caller
    std::string file;
    std::string function;
    unsigned line = 0;
    Stream stream = Stream::App;
    int context = 0;  // lets a formatter's allowlist select messages; the kit's own use 0
};

/// Where a log call stands in the source. The compiler builtins fill it in at the call site; they
/// are used instead of std::source_location because clang 14 with libstdc++ 12 (the fuzzing
/// toolchain here) lacks the latter.
struct Location {
    const char* file = "";
    const char* function = "";
    unsigned lineNumber = 0;

    static constexpr Location current(const char* file = __builtin_FILE(),
                                      const char* function = __builtin_FUNCTION(),
                                      unsigned line = __builtin_LINE()) noexcept {
        return Location{file, function, line};
    }
    constexpr const char* file_name() const noexcept { return file; }
    constexpr const char* function_name() const noexcept { return function; }
    constexpr unsigned line() const noexcept { return lineNumber; }
};

/// Logs `text` at the given flag. Never throws: a failing sink loses the line, not the caller.
void write(unsigned flag, std::string_view text, Stream stream = Stream::App,
           const Location& location = Location::current());

inline void error(std::string_view text, Stream stream = Stream::App,
                  const Location& location = Location::current()) {
    write(kError, text, stream, location);
}
inline void warning(std::string_view text, Stream stream = Stream::App,
                    const Location& location = Location::current()) {
    write(kWarning, text, stream, location);
}
inline void info(std::string_view text, Stream stream = Stream::App,
                 const Location& location = Location::current()) {
    write(kInfo, text, stream, location);
}
inline void debug(std::string_view text, Stream stream = Stream::App,
                  const Location& location = Location::current()) {
    write(kDebug, text, stream, location);
}
inline void verbose(std::string_view text, Stream stream = Stream::App,
                    const Location& location = Location::current()) {
    write(kVerbose, text, stream, location);
}

/// Whether messages are written to their stream's files (on by default). The files live where
/// LogFileManager::app(), api() and tunnel() say; a stream opens its file on its first message
/// and starts a new one each day.
void setFileLoggingEnabled(bool enabled);
bool isFileLoggingEnabled();

/// The flags whose messages reach the files (error, warning and info by default; the environment
/// variable LMKIT_LOG_LEVEL=debug or verbose widens it at start).
void setFileLevel(unsigned mask);
unsigned fileLevel();

/// Whether a message of `flag` would go anywhere: callers that build costly lines (one per node
/// of a large run) ask first.
bool isEnabled(unsigned flag);

/// The flags whose messages are also written to standard error (none by default).
void setStderrLevel(unsigned mask);
unsigned stderrLevel();

/// Receives every message logged while it is installed.
class Observer {
  public:
    virtual ~Observer() = default;
    virtual void log(const LogMessage& message) = 0;
};
void addObserver(std::shared_ptr<Observer> observer);
void removeObserver(const std::shared_ptr<Observer>& observer);

/// Records the messages logged during its lifetime (for tests and tools that show what the kit
/// said).
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<LogMessage> messages() const;
    /// The message texts, in order.
    std::vector<std::string> texts() const;
    /// True when some message text contains `fragment`.
    bool contains(std::string_view fragment) const;
    /// How many message texts contain `fragment`.
    std::size_t count(std::string_view fragment) const;
    void clear();

  private:
    struct Recorder;
    std::shared_ptr<Recorder> recorder_;
};

}  // namespace lmkit::log
