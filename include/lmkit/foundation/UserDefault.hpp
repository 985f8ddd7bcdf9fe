#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

/// A plain property-list setting (integer, floating value, boolean, string, or any value as
/// DefaultsValue), not optional. Reading gives the stored value when it has this type, else the
/// default. Writing stores and synchronises on the caller's thread.
template <class T>
class UserDefault {
  public:
    UserDefault(std::string key, T defaultValue, std::shared_ptr<UserDefaults> defaults = nullptr)
        : key_(std::move(key)),
          defaultValue_(std::move(defaultValue)),
          defaults_(defaults ? std::move(defaults) : UserDefaults::suite()) {}

    const std::string& key() const { return key_; }

    T get() const {
        auto value = defaults_->objectForKey(key_);
        if (!value)
            return defaultValue_;
        if constexpr (std::is_same_v<T, bool>) {
            if (value->is_boolean())
                return value->template get<bool>();
        } else if constexpr (std::is_integral_v<T>) {
            if (value->is_number_integer())
                return value->template get<T>();
        } else if constexpr (std::is_floating_point_v<T>) {
            if (value->is_number())
                return value->template get<T>();
        } else if constexpr (std::is_same_v<T, std::string>) {
            if (value->is_string())
                return value->template get<std::string>();
        } else if constexpr (std::is_same_v<T, DefaultsValue>) {
            return *value;
        } else {
            static_assert(std::is_same_v<T, void>, "UserDefault holds property-list values only");
        }
        return defaultValue_;
    }

    void set(const T& value) const {
        defaults_->setObject(DefaultsValue(value), key_);
        defaults_->synchronize();
    }

    UserDefault& operator=(const T& value) {
        set(value);
        return *this;
    }

  private:
    std::string key_;
    T defaultValue_;
    std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace lmkit
