#pragma once

#include <map>
#include <optional>
#include <string>

namespace lmkit {

/// A failure reported to a callback: the domain names the component, the code says what failed,
/// and userInfo carries the human-readable details (the localised description among them).
struct Error {
    static constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";

    std::string domain;
    long code = 0;
    std::map<std::string, std::string> userInfo;

    Error() = default;
    Error(std::string domain, long code, std::map<std::string, std::string> userInfo = {})
        : domain(std::move(domain)), code(code), userInfo(std::move(userInfo)) {}

    /// An error whose localised description is `description`.
    static Error withDescription(std::string domain, long code, std::string description);

    /// The text under kLocalizedDescriptionKey, or a generic sentence naming domain and code.
    std::string localizedDescription() const;

    bool operator==(const Error&) const = default;
};

/// "domain code: description", the form the command-line tool prints.
std::string describe(const Error& error);

}  // namespace lmkit
