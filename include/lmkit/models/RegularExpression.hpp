#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace lmkit {

/// A compiled, case-insensitive regular expression. Patterns come from the service and are
/// written for ICU's dialect (look-around, back-references, \Z, bounded repeats), so they are
/// compiled with ICU. Every match runs under a time limit: a pattern that would backtrack for
/// ever gives up and counts as no match, so no rule can stall the tunnel.
/// Copies share the compiled program; matching is safe from any thread.
class RegularExpression {
  public:
    RegularExpression() = default;

    /// The compiled pattern, or nil (with a log line naming it) when it does not compile.
    static std::optional<RegularExpression> compile(std::string_view pattern);

    /// The pattern the expression was compiled from (empty for a default-constructed one).
    const std::string& pattern() const;

    /// True when the expression matches somewhere in `text`; nil text never matches, nor does
    /// a match that runs out of time.
    bool matchInString(const std::optional<std::string>& text) const;
    bool matchInString(std::string_view text) const;
    bool matchInString(const std::string& text) const {
        return matchInString(std::string_view(text));
    }
    bool matchInString(const char* text) const {
        return text && matchInString(std::string_view(text));
    }

    bool operator==(const RegularExpression& other) const { return pattern() == other.pattern(); }

  private:
    class Program;
    std::shared_ptr<Program> program_;
};

}  // namespace lmkit
