#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

/// A plain integer, floating or boolean setting read through the defaults' typed accessors: a
/// value written by another program as a numeric text or as "YES" reads as its number or
/// boolean, an absent key as 0 or false. Writing stores the value in its own kind and
/// synchronises, on the caller's thread.
template <class T>
requires(std::is_same_v<T, long> || std::is_same_v<T, bool> ||
         std::is_same_v<T, double>) class PlainDefault {
  public:
    explicit PlainDefault(std::string key, std::shared_ptr<UserDefaults> defaults = nullptr)
        : key_(std::move(key)), defaults_(defaults ? std::move(defaults) : UserDefaults::suite()) {}

    const std::string& key() const { return key_; }

    T get() const {
        if constexpr (std::is_same_v<T, bool>)
            return defaults_->boolForKey(key_);
        else if constexpr (std::is_same_v<T, long>)
            return defaults_->integerForKey(key_);
        else
            return defaults_->doubleForKey(key_);
    }

    void set(T value) const {
        defaults_->setObject(DefaultsValue(value), key_);
        defaults_->synchronize();
    }

    PlainDefault& operator=(T value) {
        set(value);
        return *this;
    }

  private:
    std::string key_;
    std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace lmkit
