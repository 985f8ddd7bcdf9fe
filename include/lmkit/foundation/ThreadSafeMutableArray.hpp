#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "lmkit/foundation/ContainerTraits.hpp"

namespace lmkit {

/// An array of object references that many threads may read and write at once.
///
/// Reads run in parallel with each other; a write runs alone and is visible to every read that
/// starts after it returns, on any thread. No operation throws for a bad index: out-of-range
/// reads give nil, out-of-range writes are dropped, and nil objects are ignored. Unlike a plain
/// array, insertObject() at index == count() is dropped rather than appended: callers rely on
/// inserts landing only between existing elements.
///
/// Elements of pointer type (std::shared_ptr, raw pointers) are nil when null; other element
/// types are passed as std::optional and are nil when empty (see detail::Nullable).
///
/// Enumeration blocks run while the container is read-locked: they must not call back into the
/// same container.
template <class T>
class ThreadSafeMutableArray {
  public:
    using Object = detail::Nullable<T>;
    /// block(object, index, stop): set `stop` to true to end the walk early.
    using Block = void(const T& object, std::size_t index, bool& stop);

    ThreadSafeMutableArray() = default;
    explicit ThreadSafeMutableArray(std::size_t capacity) { array_.reserve(capacity); }
    /// The first `count` objects of `objects`, in order (nil objects skipped).
    ThreadSafeMutableArray(const Object* objects, std::size_t count) {
        array_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            if (!detail::isNil<T>(objects[i]))
                array_.push_back(detail::unwrap<T>(objects[i]));
        }
    }
    ThreadSafeMutableArray(std::initializer_list<T> objects) : array_(objects) {}
    ThreadSafeMutableArray(const ThreadSafeMutableArray&) = delete;
    ThreadSafeMutableArray& operator=(const ThreadSafeMutableArray&) = delete;

    // Reads.

    std::size_t count() const {
        std::shared_lock guard(mutex_);
        return array_.size();
    }

    /// The element at `index`, or nil when `index` is not below count().
    Object objectAtIndex(std::size_t index) const {
        std::shared_lock guard(mutex_);
        if (index >= array_.size())
            return Object{};
        return Object(array_[index]);
    }

    /// The index of the first element equal to `object`, or kNotFound.
    std::size_t indexOfObject(const Object& object) const {
        if (detail::isNil<T>(object))
            return kNotFound;
        const T& wanted = detail::unwrap<T>(object);
        std::shared_lock guard(mutex_);
        for (std::size_t i = 0; i < array_.size(); ++i) {
            if (detail::objectsEqual(array_[i], wanted))
                return i;
        }
        return kNotFound;
    }

    /// The elements of [location, location + length), or nil when that range does not lie
    /// inside the array.
    std::optional<std::vector<T>> subarrayWithRange(std::size_t location,
                                                    std::size_t length) const {
        std::shared_lock guard(mutex_);
        if (location > array_.size() || length > array_.size() - location)
            return std::nullopt;
        auto first = array_.begin() + static_cast<std::ptrdiff_t>(location);
        return std::vector<T>(first, first + static_cast<std::ptrdiff_t>(length));
    }

    /// A copy of the whole array: the snapshot to hand out.
    std::vector<T> immutableArray() const {
        std::shared_lock guard(mutex_);
        return array_;
    }

    template <class F>
    void enumerateObjects(F&& block) const {
        enumerateObjects(0u, std::forward<F>(block));
    }

    template <class F>
    void enumerateObjects(unsigned options, F&& block) const {
        std::shared_lock guard(mutex_);
        bool stop = false;
        const std::size_t n = array_.size();
        for (std::size_t k = 0; k < n && !stop; ++k) {
            std::size_t i = (options & kEnumerationReverse) ? n - 1 - k : k;
            block(array_[i], i, stop);
        }
    }

    /// Walks the elements at `indexes`; indexes not below count() are skipped.
    template <class F>
    void enumerateObjects(const std::set<std::size_t>& indexes, unsigned options, F&& block) const {
        std::shared_lock guard(mutex_);
        bool stop = false;
        auto visit = [&](std::size_t i) {
            if (i < array_.size())
                block(array_[i], i, stop);
        };
        if (options & kEnumerationReverse) {
            for (auto it = indexes.rbegin(); it != indexes.rend() && !stop; ++it)
                visit(*it);
        } else {
            for (auto it = indexes.begin(); it != indexes.end() && !stop; ++it)
                visit(*it);
        }
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
    /// below count() (an index equal to count() does not append) or when `object` is nil.
    void insertObject(const Object& object, std::size_t index) {
        if (detail::isNil<T>(object))
            return;
        std::unique_lock guard(mutex_);
        if (index >= array_.size())
            return;
        array_.insert(array_.begin() + static_cast<std::ptrdiff_t>(index),
                      detail::unwrap<T>(object));
    }

    void addObject(const Object& object) {
        if (detail::isNil<T>(object))
            return;
        std::unique_lock guard(mutex_);
        array_.push_back(detail::unwrap<T>(object));
    }

    /// Appends every element of `objects`; a nil array is ignored.
    void addObjectsFromArray(const std::optional<std::vector<T>>& objects) {
        if (!objects)
            return;
        std::unique_lock guard(mutex_);
        array_.insert(array_.end(), objects->begin(), objects->end());
    }

    void removeObjectAtIndex(std::size_t index) {
        std::unique_lock guard(mutex_);
        if (index >= array_.size())
            return;
        array_.erase(array_.begin() + static_cast<std::ptrdiff_t>(index));
    }

    void removeLastObject() {
        std::unique_lock guard(mutex_);
        if (!array_.empty())
            array_.pop_back();
    }

    /// Removes every element equal to `object`.
    void removeObject(const Object& object) {
        if (detail::isNil<T>(object))
            return;
        const T& unwanted = detail::unwrap<T>(object);
        std::unique_lock guard(mutex_);
        std::erase_if(array_, [&](const T& e) { return detail::objectsEqual(e, unwanted); });
    }

    void removeAllObjects() {
        std::unique_lock guard(mutex_);
        array_.clear();
    }

    void replaceObjectAtIndex(std::size_t index, const Object& object) {
        if (detail::isNil<T>(object))
            return;
        std::unique_lock guard(mutex_);
        if (index >= array_.size())
            return;
        array_[index] = detail::unwrap<T>(object);
    }

  private:
    mutable std::shared_mutex mutex_;
    std::vector<T> array_;  // guarded by mutex_
};

}  // namespace lmkit
