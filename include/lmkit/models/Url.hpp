#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lmkit {

/// A URL as the service delivers it: text made only of the characters a URL may carry, with
/// well-formed percent escapes. Text with spaces, quotes, braces or other characters that would
/// need escaping is no URL.
class Url {
  public:
    Url() = default;

    /// The URL made from `text`, or nil when `text` is empty or no valid URL.
    static std::optional<Url> fromString(std::string_view text);

    const std::string& absoluteString() const { return text_; }
    /// The scheme before the first ':' (lower case), or empty when there is none.
    std::string scheme() const;

    bool operator==(const Url&) const = default;

  private:
    explicit Url(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

}  // namespace lmkit
