#include "lmkit/platform/NotificationCenter.hpp"

#include <algorithm>

namespace lmkit {

// One registration. Calls hold `callMutex` so that removal can wait for a call in flight; it is
// recursive so that an observer may remove itself (or post again) from inside its own call.
struct NotificationCenter::Entry {
    std::string name;
    Observer observer;
    std::recursive_mutex callMutex;
    bool removed = false;  // guarded by callMutex
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name,
                                                          Observer observer) {
    auto entry = std::make_shared<Entry>();
    entry->name = name;
    entry->observer = std::move(observer);
    std::lock_guard lock(mutex_);
    Token token = nextToken_++;
    observers_[name].push_back(entry);
    byToken_.emplace(token, std::move(entry));
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::shared_ptr<Entry> entry;
    {
        std::lock_guard lock(mutex_);
        auto found = byToken_.find(token);
        if (found == byToken_.end())
            return;
        entry = std::move(found->second);
        byToken_.erase(found);
        auto named = observers_.find(entry->name);
        if (named != observers_.end()) {
            std::erase(named->second, entry);
            if (named->second.empty())
                observers_.erase(named);
        }
    }
    std::lock_guard call(entry->callMutex);
    entry->removed = true;
}

void NotificationCenter::post(const std::string& name,
                              std::optional<nlohmann::ordered_json> userInfo) {
    std::vector<std::shared_ptr<Entry>> targets;
    {
        std::lock_guard lock(mutex_);
        auto named = observers_.find(name);
        if (named == observers_.end())
            return;
        targets = named->second;
    }
    const Notification notification{name, std::move(userInfo)};
    for (const auto& entry : targets) {
        std::lock_guard call(entry->callMutex);
        if (!entry->removed && entry->observer)
            entry->observer(notification);
    }
}

}  // namespace lmkit
