#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "lmkit/platform/Error.hpp"

namespace lmkit {

/// The keychain shared by the app and its tunnel through their access group: a small store of
/// text items of its own, "<app group>/Keychain/<access group>.keychain", readable by the owner
/// only (mode 0600). Writes are serialised across processes with a lock file and replace the file
/// atomically, so a reader sees the old items or the new ones, never half of them. No operation
/// throws.
class Keychain {
  public:
    explicit Keychain(const std::string& accessGroup);
    /// A keychain file at an explicit path (tools and tests).
    static Keychain atPath(std::filesystem::path path);

    const std::filesystem::path& path() const { return path_; }

    /// The item under `key`; nullopt when there is none or the keychain cannot be read (then
    /// `error` says why).
    std::optional<std::string> stringForKey(const std::string& key,
                                            std::optional<Error>* error = nullptr) const;
    bool setString(const std::string& value, const std::string& key,
                   std::optional<Error>* error = nullptr);
    bool removeItem(const std::string& key, std::optional<Error>* error = nullptr);

  private:
    Keychain() = default;
    bool update(const std::string& key, const std::optional<std::string>& value,
                std::optional<Error>* error);

    std::filesystem::path path_;
};

}  // namespace lmkit
