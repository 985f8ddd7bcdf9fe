#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lmkit/foundation/ContainerTraits.hpp"

namespace lmkit {

/// A dictionary from keys to object references that many threads may read and write at once.
///
/// Reads run in parallel with each other; a write runs alone and is visible to every read that
/// starts after it returns, on any thread. Keys are copied by the writer before the dictionary is
/// touched. Setting a nil object removes the key (subscript semantics). Values of pointer type
/// are nil when null; other value types are passed as std::optional (see detail::Nullable).
///
/// Enumeration blocks run while the dictionary is read-locked: they must not call back into the
/// same dictionary.
template <class Key, class Value, class Hash = std::hash<Key>>
class ThreadSafeMutableDictionary {
  public:
    using Object = detail::Nullable<Value>;
    using Map = std::unordered_map<Key, Value, Hash>;

    ThreadSafeMutableDictionary() = default;
    explicit ThreadSafeMutableDictionary(std::size_t capacity) { dict_.reserve(capacity); }
    /// The first `count` pairs, each stored as by setObjectForKeyedSubscript() in order (so a
    /// nil object removes an earlier pair with the same key).
    ThreadSafeMutableDictionary(const Object* objects, const Key* keys, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            store(objects[i], keys[i]);
    }
    ThreadSafeMutableDictionary(std::initializer_list<std::pair<const Key, Value>> pairs)
        : dict_(pairs) {}
    ThreadSafeMutableDictionary(const ThreadSafeMutableDictionary&) = delete;
    ThreadSafeMutableDictionary& operator=(const ThreadSafeMutableDictionary&) = delete;

    // Reads.

    std::size_t count() const {
        std::shared_lock guard(mutex_);
        return dict_.size();
    }

    /// The object stored for `key`, or nil.
    Object objectForKey(const Key& key) const {
        std::shared_lock guard(mutex_);
        auto found = dict_.find(key);
        if (found == dict_.end())
            return Object{};
        return Object(found->second);
    }
    Object objectForKeyedSubscript(const Key& key) const { return objectForKey(key); }

    /// An immutable snapshot owned by the caller.
    Map copy() const {
        std::shared_lock guard(mutex_);
        return dict_;
    }

    std::vector<Value> allValues() const {
        std::shared_lock guard(mutex_);
        std::vector<Value> values;
        values.reserve(dict_.size());
        for (const auto& [key, value] : dict_)
            values.push_back(value);
        return values;
    }

    /// block(key, object, stop): set `stop` to true to end the walk early.
    template <class F>
    void enumerateKeysAndObjects(F&& block) const {
        std::shared_lock guard(mutex_);
        bool stop = false;
        for (auto it = dict_.begin(); it != dict_.end() && !stop; ++it) {
            block(it->first, it->second, stop);
        }
    }

    /// Walks the keys present when it was taken. A hashed map cannot be walked live while
    /// writers rehash it, so the enumerator holds its own list of keys; objectForKey() tells
    /// whether a key is still present.
    class KeyEnumerator {
      public:
        explicit KeyEnumerator(std::vector<Key> keys) : keys_(std::move(keys)) {}
        /// The next key, or nil at the end.
        std::optional<Key> nextObject() {
            if (next_ >= keys_.size())
                return std::nullopt;
            return keys_[next_++];
        }

      private:
        std::vector<Key> keys_;
        std::size_t next_ = 0;
    };
    KeyEnumerator keyEnumerator() const {
        std::shared_lock guard(mutex_);
        std::vector<Key> keys;
        keys.reserve(dict_.size());
        for (const auto& entry : dict_)
            keys.push_back(entry.first);
        return KeyEnumerator(std::move(keys));
    }

    // Writes.

    /// Stores `object` for `key`; a nil object removes the key.
    void setObject(const Object& object, const Key& key) {
        Key copied = key;  // taken before the dictionary is locked
        std::unique_lock guard(mutex_);
        store(object, std::move(copied));
    }
    void setObjectForKeyedSubscript(const Object& object, const Key& key) {
        setObject(object, key);
    }

    void removeObjectForKey(const Key& key) {
        std::unique_lock guard(mutex_);
        dict_.erase(key);
    }

    void removeAllObjects() {
        std::unique_lock guard(mutex_);
        dict_.clear();
    }

  private:
    void store(const Object& object, Key key) {
        if (detail::isNil<Value>(object)) {
            dict_.erase(key);
        } else {
            dict_.insert_or_assign(std::move(key), detail::unwrap<Value>(object));
        }
    }

    mutable std::shared_mutex mutex_;
    Map dict_;  // guarded by mutex_
};

}  // namespace lmkit
