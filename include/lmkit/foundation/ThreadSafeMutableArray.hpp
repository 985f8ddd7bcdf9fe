#pragma once

#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "lmkit/foundation/ContainerTraits.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// An array of object references that many threads may read and write at once.
///
/// The array owns a concurrent queue, labelled "thread_safe_array_<address>". Reads run on it
/// side by side and return their result; writes are barrier blocks on it: the caller returns at
/// once, the write runs alone once the reads and writes before it are done, and a read issued
/// after a write, on any thread, observes it. No operation throws for a bad index: out-of-range
/// reads give nil, out-of-range writes are dropped, and nil objects are ignored. Unlike a plain
/// array, insertObject() at index == count() is dropped rather than appended: callers rely on
/// inserts landing only between existing elements. A write still queued when the array is
/// destroyed does nothing.
///
/// Elements of pointer type (std::shared_ptr, raw pointers) are nil when null; other element
/// types are passed as std::optional and are nil when empty (see detail::Nullable).
///
/// Enumeration blocks run on the array's queue beside other readers: a write from inside one is
/// queued behind the enumeration, a read from inside runs at once.
template <class T>
class ThreadSafeMutableArray {
  public:
    using Object = detail::Nullable<T>;
    /// block(object, index, stop): set `stop` to true to end the walk early.
    using Block = void(const T& object, std::size_t index, bool& stop);

    ThreadSafeMutableArray() : queue_(commonSetup()) {}
    explicit ThreadSafeMutableArray(std::size_t capacity) : queue_(commonSetup()) {
        storage_->array.reserve(capacity);
    }
    /// The first `count` objects of `objects`, in order (nil objects skipped).
    ThreadSafeMutableArray(const Object* objects, std::size_t count) : queue_(commonSetup()) {
        storage_->array.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            if (!detail::isNil<T>(objects[i]))
                storage_->array.push_back(detail::unwrap<T>(objects[i]));
        }
    }
    ThreadSafeMutableArray(std::initializer_list<T> objects) : queue_(commonSetup()) {
        storage_->array = objects;
    }
    /// The elements of the JSON array in the file. When the file cannot be read as one, the
    /// array has no backing store: it stays empty and ignores writes.
    explicit ThreadSafeMutableArray(const ContentsOfFile& file) : queue_(commonSetup()) {
        adopt(detail::arrayFromJSON<T>(detail::readJSONFile(file.path)));
    }
    /// The elements of an archive of the array (its JSON array); as above when it is not one.
    explicit ThreadSafeMutableArray(const Coder& coder) : queue_(commonSetup()) {
        adopt(detail::arrayFromJSON<T>(coder.archive));
    }
    ThreadSafeMutableArray(const ThreadSafeMutableArray&) = delete;
    ThreadSafeMutableArray& operator=(const ThreadSafeMutableArray&) = delete;

    // Reads.

    std::size_t count() const {
        return read([](const std::vector<T>& array) { return array.size(); });
    }

    /// The element at `index`, or nil when `index` is not below count().
    Object objectAtIndex(std::size_t index) const {
        return read([&](const std::vector<T>& array) {
            return index < array.size() ? Object(array[index]) : Object{};
        });
    }

    /// The index of the first element equal to `object`, or kNotFound.
    std::size_t indexOfObject(const Object& object) const {
        if (detail::isNil<T>(object))
            return kNotFound;
        const T& wanted = detail::unwrap<T>(object);
        return read([&](const std::vector<T>& array) {
            for (std::size_t i = 0; i < array.size(); ++i) {
                if (detail::objectsEqual(array[i], wanted))
                    return i;
            }
            return kNotFound;
        });
    }

    /// The elements of [location, location + length), or nil when that range does not lie
    /// inside the array.
    std::optional<std::vector<T>> subarrayWithRange(std::size_t location,
                                                    std::size_t length) const {
        return read([&](const std::vector<T>& array) -> std::optional<std::vector<T>> {
            if (location > array.size() || length > array.size() - location)
                return std::nullopt;
            auto first = array.begin() + static_cast<std::ptrdiff_t>(location);
            return std::vector<T>(first, first + static_cast<std::ptrdiff_t>(length));
        });
    }

    /// A copy of the whole array: the snapshot to hand out.
    std::vector<T> immutableArray() const {
        return read([](const std::vector<T>& array) { return array; });
    }

    template <class F>
    void enumerateObjects(F&& block) const {
        enumerateObjects(0u, std::forward<F>(block));
    }

    template <class F>
    void enumerateObjects(unsigned options, F&& block) const {
        read([&](const std::vector<T>& array) {
            bool stop = false;
            const std::size_t n = array.size();
            for (std::size_t k = 0; k < n && !stop; ++k) {
                std::size_t i = (options & kEnumerationReverse) ? n - 1 - k : k;
                block(array[i], i, stop);
            }
            return 0;
        });
    }

    /// Walks the elements at `indexes`; indexes not below count() are skipped.
    template <class F>
    void enumerateObjects(const std::set<std::size_t>& indexes, unsigned options, F&& block) const {
        read([&](const std::vector<T>& array) {
            bool stop = false;
            auto visit = [&](std::size_t i) {
                if (i < array.size())
                    block(array[i], i, stop);
            };
            if (options & kEnumerationReverse) {
                for (auto it = indexes.rbegin(); it != indexes.rend() && !stop; ++it)
                    visit(*it);
            } else {
                for (auto it = indexes.begin(); it != indexes.end() && !stop; ++it)
                    visit(*it);
            }
            return 0;
        });
    }

    /// A live enumerator: each nextObject() reads the element after the previous one as the
    /// array is at that moment, so it sees writes made meanwhile. Callers that need a stable
    /// view take immutableArray(). The enumerator must not outlive the array.
    class ObjectEnumerator {
      public:
        explicit ObjectEnumerator(const ThreadSafeMutableArray& owner) : owner_(&owner) {}
        /// The next element, or nil at the end.
        Object nextObject() { return owner_->objectAtIndex(next_++); }

      private:
        const ThreadSafeMutableArray* owner_;
        std::size_t next_ = 0;
    };
    ObjectEnumerator objectEnumerator() const { return ObjectEnumerator(*this); }

    // Writes.

    /// Inserts `object` before the element at `index`; dropped when `index` is not strictly
    /// below count() when the write runs (an index equal to count() does not append) or when
    /// `object` is nil.
    void insertObject(const Object& object, std::size_t index) {
        if (detail::isNil<T>(object))
            return;
        write([object = detail::unwrap<T>(object), index](std::vector<T>& array) {
            if (index < array.size())
                array.insert(array.begin() + static_cast<std::ptrdiff_t>(index), object);
        });
    }

    void addObject(const Object& object) {
        if (detail::isNil<T>(object))
            return;
        write([object = detail::unwrap<T>(object)](std::vector<T>& array) {
            array.push_back(object);
        });
    }

    /// Appends every element of `objects`; a nil array is ignored.
    void addObjectsFromArray(const std::optional<std::vector<T>>& objects) {
        if (!objects)
            return;
        write([objects = *objects](std::vector<T>& array) {
            array.insert(array.end(), objects.begin(), objects.end());
        });
    }

    void removeObjectAtIndex(std::size_t index) {
        write([index](std::vector<T>& array) {
            if (index < array.size())
                array.erase(array.begin() + static_cast<std::ptrdiff_t>(index));
        });
    }

    void removeLastObject() {
        write([](std::vector<T>& array) {
            if (!array.empty())
                array.pop_back();
        });
    }

    /// Removes every element equal to `object`.
    void removeObject(const Object& object) {
        if (detail::isNil<T>(object))
            return;
        write([unwanted = detail::unwrap<T>(object)](std::vector<T>& array) {
            std::erase_if(array, [&](const T& e) { return detail::objectsEqual(e, unwanted); });
        });
    }

    void removeAllObjects() {
        write([](std::vector<T>& array) { array.clear(); });
    }

    void replaceObjectAtIndex(std::size_t index, const Object& object) {
        if (detail::isNil<T>(object))
            return;
        write([index, object = detail::unwrap<T>(object)](std::vector<T>& array) {
            if (index < array.size())
                array[index] = object;
        });
    }

    /// The array's own queue.
    const DispatchQueue& queue() const { return queue_; }

  private:
    struct Storage {
        std::vector<T> array;
        bool backed = true;  // false: no backing store, writes are ignored
    };

    DispatchQueue commonSetup() {
        char label[64];
        std::snprintf(label, sizeof label, "thread_safe_array_%p", static_cast<void*>(this));
        return DispatchQueue::concurrent(label);
    }

    void adopt(std::optional<std::vector<T>> contents) {
        if (contents)
            storage_->array = std::move(*contents);
        else
            storage_->backed = false;
    }

    template <class F>
    auto read(F&& body) const {
        decltype(body(storage_->array)) result{};
        queue_.sync([&] { result = body(storage_->array); });
        return result;
    }

    // The write holds the storage weakly: once the array is gone, a write still queued does
    // nothing.
    template <class F>
    void write(F&& body) {
        std::weak_ptr<Storage> weak = storage_;
        queue_.asyncBarrier([weak, body = std::forward<F>(body)]() mutable {
            if (auto storage = weak.lock(); storage && storage->backed)
                body(storage->array);
        });
    }

    DispatchQueue queue_;
    // Touched only by blocks on queue_ (reads beside each other, writes alone), and by the
    // constructors before the array is shared.
    std::shared_ptr<Storage> storage_ = std::make_shared<Storage>();
};

}  // namespace lmkit
