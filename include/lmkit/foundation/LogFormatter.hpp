#pragma once

#include <optional>
#include <set>
#include <string>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

/// Turns one log message into one line of a log file:
///
///     2024-01-31 08:15:02.117 [I️][com.example.queue] > node selected
///
/// The date is local time, "yyyy-MM-dd HH:mm:ss.SSS". The level tags are "[E]", "[W️]", "[I️]",
/// "[D]" and "[V]"; the warning and info tags carry U+FE0F (emoji presentation) after the letter
/// and the others do not: readers of existing files match on exactly these bytes.
///
/// A formatter is configured once and then used from any thread; its setters are not meant to
/// race with format().
class LogFormatter {
  public:
    /// `level` is the mask of flags this formatter writes (see log::Flag).
    explicit LogFormatter(unsigned level = log::kAllLevels);

    unsigned level() const { return level_; }
    void setLevel(unsigned level) { level_ = level; }
    bool showDate() const { return showDate_; }
    void setShowDate(bool show) { showDate_ = show; }
    bool showThreadName() const { return showThreadName_; }
    void setShowThreadName(bool show) { showThreadName_ = show; }
    bool showFileName() const { return showFileName_; }
    void setShowFileName(bool show) { showFileName_ = show; }
    bool showLineNumber() const { return showLineNumber_; }
    void setShowLineNumber(bool show) { showLineNumber_ = show; }
    bool showFunctionName() const { return showFunctionName_; }
    void setShowFunctionName(bool show) { showFunctionName_ = show; }

    /// Contexts whose messages are formatted. While the allowlist is empty every context is,
    /// since the kit's own messages all carry the default context.
    void addToAllowlist(int context) { allowlist_.insert(context); }
    void removeFromAllowlist(int context) { allowlist_.erase(context); }
    bool isOnAllowlist(int context) const {
        return allowlist_.empty() || allowlist_.count(context) > 0;
    }

    /// The line for `message` (without a line break), or nil when the message is dropped: its
    /// context is not allowed, or its flag masked by level() is not exactly one level flag.
    std::optional<std::string> format(const log::LogMessage& message) const;
    std::optional<std::string> formatLogMessage(const log::LogMessage& message) const {
        return format(message);
    }

  private:
    unsigned level_;
    bool showDate_ = true;
    bool showThreadName_ = true;
    bool showFileName_ = false;
    bool showLineNumber_ = false;
    bool showFunctionName_ = false;
    std::set<int> allowlist_;
};

}  // namespace lmkit
