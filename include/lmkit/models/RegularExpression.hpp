#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace re2 {
class RE2;
}

namespace lmkit {

/// A compiled, case-insensitive regular expression. Patterns come from the service, so they are
/// compiled with RE2: matching time stays linear in the text whatever the pattern is, and
/// constructs that would need backtracking (back-references, look-around) do not compile.
/// Copies share the compiled program, which is immutable and safe to use from any thread.
class RegularExpression {
  public:
    RegularExpression() = default;

    /// The compiled pattern, or nil when it does not compile.
    static std::optional<RegularExpression> compile(std::string_view pattern);

    /// The pattern the expression was compiled from (empty for a default-constructed one).
    const std::string& pattern() const;

    /// True when the expression matches somewhere in `text`; nil text never matches.
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
    std::shared_ptr<const re2::RE2> re_;
};

}  // namespace lmkit
