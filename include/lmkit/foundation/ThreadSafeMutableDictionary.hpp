#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lmkit/foundation/ContainerTraits.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// A dictionary from keys to object references that many threads may read and write at once.
///
/// The dictionary owns a concurrent queue, labelled "thread_safe_dictionary_<address>". Reads run
/// on it side by side and return their result; writes are barrier blocks on it: the caller
/// returns at once, the write runs alone once the reads and writes before it are done, and a read
/// issued after a write, on any thread, observes it. Keys are copied by the writer before
/// anything is queued. Setting a nil object removes the key (subscript semantics). Values of
/// pointer type are nil when null; other value types are passed as std::optional (see
/// detail::Nullable). A write still queued when the dictionary is destroyed does nothing.
///
/// Enumeration blocks run on the dictionary's queue beside other readers: a write from inside
/// one is queued behind the enumeration, a read from inside runs at once.
template <class Key, class Value, class Hash = std::hash<Key>>
class ThreadSafeMutableDictionary {
  public:
    using Object = detail::Nullable<Value>;
    using Map = std::unordered_map<Key, Value, Hash>;

    ThreadSafeMutableDictionary() : queue_(commonSetup()) {}
    explicit ThreadSafeMutableDictionary(std::size_t capacity) : queue_(commonSetup()) {
        storage_->dict.reserve(capacity);
    }
    /// The first `count` pairs, each stored as by setObjectForKeyedSubscript() in order (so a
    /// nil object removes an earlier pair with the same key).
    ThreadSafeMutableDictionary(const Object* objects, const Key* keys, std::size_t count)
        : queue_(commonSetup()) {
        for (std::size_t i = 0; i < count; ++i)
            store(storage_->dict, objects[i], keys[i]);
    }
    ThreadSafeMutableDictionary(std::initializer_list<std::pair<const Key, Value>> pairs)
        : queue_(commonSetup()) {
        storage_->dict = pairs;
    }
    /// The pairs of the JSON object in the file. When the file cannot be read as one, the
    /// dictionary has no backing store: it stays empty and ignores writes.
    explicit ThreadSafeMutableDictionary(const ContentsOfFile& file) : queue_(commonSetup()) {
        adopt(detail::dictionaryFromJSON<Key, Value, Map>(detail::readJSONFile(file.path)));
    }
    /// The pairs of an archive of the dictionary (its JSON object); as above when it is not one.
    explicit ThreadSafeMutableDictionary(const Coder& coder) : queue_(commonSetup()) {
        adopt(detail::dictionaryFromJSON<Key, Value, Map>(coder.archive));
    }
    ThreadSafeMutableDictionary(const ThreadSafeMutableDictionary&) = delete;
    ThreadSafeMutableDictionary& operator=(const ThreadSafeMutableDictionary&) = delete;

    // Reads.

    std::size_t count() const {
        return read([](const Map& dict) { return dict.size(); });
    }

    /// The object stored for `key`, or nil.
    Object objectForKey(const Key& key) const {
        return read([&](const Map& dict) {
            auto found = dict.find(key);
            return found == dict.end() ? Object{} : Object(found->second);
        });
    }
    Object objectForKeyedSubscript(const Key& key) const { return objectForKey(key); }

    /// An immutable snapshot owned by the caller.
    Map copy() const {
        return read([](const Map& dict) { return dict; });
    }

    std::vector<Value> allValues() const {
        return read([](const Map& dict) {
            std::vector<Value> values;
            values.reserve(dict.size());
            for (const auto& [key, value] : dict)
                values.push_back(value);
            return values;
        });
    }

    /// block(key, object, stop): set `stop` to true to end the walk early.
    template <class F>
    void enumerateKeysAndObjects(F&& block) const {
        read([&](const Map& dict) {
            bool stop = false;
            for (auto it = dict.begin(); it != dict.end() && !stop; ++it)
                block(it->first, it->second, stop);
            return 0;
        });
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
        return KeyEnumerator(read([](const Map& dict) {
            std::vector<Key> keys;
            keys.reserve(dict.size());
            for (const auto& entry : dict)
                keys.push_back(entry.first);
            return keys;
        }));
    }

    // Writes.

    /// Stores `object` for `key`; a nil object removes the key.
    void setObject(const Object& object, const Key& key) {
        write([object, key = Key(key)](Map& dict) mutable { store(dict, object, std::move(key)); });
    }
    void setObjectForKeyedSubscript(const Object& object, const Key& key) {
        setObject(object, key);
    }

    void removeObjectForKey(const Key& key) {
        write([key = Key(key)](Map& dict) { dict.erase(key); });
    }

    void removeAllObjects() {
        write([](Map& dict) { dict.clear(); });
    }

    /// The dictionary's own queue.
    const DispatchQueue& queue() const { return queue_; }

  private:
    struct Storage {
        Map dict;
        bool backed = true;  // false: no backing store, writes are ignored
    };

    static void store(Map& dict, const Object& object, Key key) {
        if (detail::isNil<Value>(object)) {
            dict.erase(key);
        } else {
            dict.insert_or_assign(std::move(key), detail::unwrap<Value>(object));
        }
    }

    DispatchQueue commonSetup() {
        char label[64];
        std::snprintf(label, sizeof label, "thread_safe_dictionary_%p", static_cast<void*>(this));
        return DispatchQueue::concurrent(label);
    }

    void adopt(std::optional<Map> contents) {
        if (contents)
            storage_->dict = std::move(*contents);
        else
            storage_->backed = false;
    }

    template <class F>
    auto read(F&& body) const {
        decltype(body(storage_->dict)) result{};
        queue_.sync([&] { result = body(storage_->dict); });
        return result;
    }

    // The write holds the storage weakly: once the dictionary is gone, a write still queued
    // does nothing.
    template <class F>
    void write(F&& body) {
        std::weak_ptr<Storage> weak = storage_;
        queue_.asyncBarrier([weak, body = std::forward<F>(body)]() mutable {
            if (auto storage = weak.lock(); storage && storage->backed)
                body(storage->dict);
        });
    }

    DispatchQueue queue_;
    // Touched only by blocks on queue_ (reads beside each other, writes alone), and by the
    // constructors before the dictionary is shared.
    std::shared_ptr<Storage> storage_ = std::make_shared<Storage>();
};

}  // namespace lmkit
