#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

namespace lmkit {

/// One posted notification: its name and an optional payload (the user-info dictionary).
struct Notification {
    std::string name;
    std::optional<nlohmann::ordered_json> userInfo;
};

/// An in-process notification centre. Observers register for a name and are called on the
/// poster's thread, in registration order, for every post of that name.
class NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;

    /// What addObserver returns; hand it to removeObserver to stop delivery. Zero is never a
    /// valid token.
    using Token = std::uint64_t;

    /// The process's default centre.
    static NotificationCenter& defaultCenter();

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    Token addObserver(const std::string& name, Observer observer);
    /// Stops delivery to the observer: once this returns, the observer is not called again (a
    /// call already running on another thread is waited for; an observer may remove itself).
    void removeObserver(Token token);

    void post(const std::string& name,
              std::optional<nlohmann::ordered_json> userInfo = std::nullopt);

  private:
    struct Entry;
    std::mutex mutex_;
    Token nextToken_ = 1;  // guarded by mutex_
    std::unordered_map<std::string, std::vector<std::shared_ptr<Entry>>> observers_;  // mutex_
    std::unordered_map<Token, std::shared_ptr<Entry>> byToken_;  // guarded by mutex_
};

}  // namespace lmkit
