#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/DefaultsWriteQueue.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

/// A setting of any JSON-encodable type kept in the app-group suite as the JSON document of a
/// one-member object {"wrapped": value} (so the integer 5 is stored as {"wrapped":5}), stored as
/// data. Reading a key never written, or data that does not decode, gives the default (the
/// latter logs "[AppDefault] get value error: ..."). Writes are asynchronous on
/// defaultsWriteQueue(): a read straight after a write on another thread may see the old value.
template <class T>
class AppDefault {
  public:
    AppDefault(std::string key, std::optional<T> defaultValue = std::nullopt,
               std::shared_ptr<UserDefaults> defaults = nullptr)
        : key_(std::move(key)),
          defaultValue_(std::move(defaultValue)),
          defaults_(defaults ? std::move(defaults) : UserDefaults::suite()) {}

    const std::string& key() const { return key_; }
    const std::shared_ptr<UserDefaults>& userDefaults() const { return defaults_; }

    std::optional<T> get() const {
        auto data = defaults_->dataForKey(key_);
        if (!data)
            return defaultValue_;
        try {
            auto json = nlohmann::ordered_json::parse(data->begin(), data->end());
            if (!json.is_object())
                throw std::runtime_error("the stored value is not an object");
            return json.at("wrapped").template get<T>();
        } catch (const std::exception& e) {
            log::error(std::string("[AppDefault] get value error: ") + e.what());
            return defaultValue_;
        }
    }

    /// Stores `value`; nullopt removes the key.
    void set(std::optional<T> value) const {
        defaultsWriteQueue().async([defaults = defaults_, key = key_, value = std::move(value)] {
            if (!value) {
                defaults->removeObjectForKey(key);
                defaults->synchronize();
                return;
            }
            std::string text;
            try {
                nlohmann::ordered_json wrapper;
                wrapper["wrapped"] = *value;
                text = wrapper.dump();
            } catch (const std::exception& e) {
                log::error(std::string("[AppDefault] set value error: ") + e.what());
                return;
            }
            defaults->setObject(UserDefaults::makeData(text), key);
            defaults->synchronize();
        });
    }

    AppDefault& operator=(std::optional<T> value) {
        set(std::move(value));
        return *this;
    }

  private:
    std::string key_;
    std::optional<T> defaultValue_;
    std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace lmkit
