#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>

namespace lmkit {

/// Options of the containers' enumerations.
enum EnumerationOptions : unsigned {
    kEnumerationConcurrent = 1u << 0,  // accepted; the walk still runs on the calling thread
    kEnumerationReverse = 1u << 1,     // walk from the last element to the first
};

/// The index that says "not found" (the largest signed 64-bit value).
inline constexpr std::size_t kNotFound = 0x7FFFFFFFFFFFFFFF;

namespace detail {

template <class T>
struct IsPointerLike : std::false_type {};
template <class T>
struct IsPointerLike<std::shared_ptr<T>> : std::true_type {};
template <class T>
struct IsPointerLike<T*> : std::true_type {};

/// How a container element of type T says "nil": a pointer-like element is nil when null; any
/// other element is wrapped in std::optional, whose empty state is nil.
template <class T>
using Nullable = std::conditional_t<IsPointerLike<T>::value, T, std::optional<T>>;

template <class T>
bool isNil(const Nullable<T>& value) {
    if constexpr (IsPointerLike<T>::value) {
        return value == nullptr;
    } else {
        return !value.has_value();
    }
}

template <class T>
const T& unwrap(const Nullable<T>& value) {
    if constexpr (IsPointerLike<T>::value) {
        return value;
    } else {
        return *value;
    }
}

/// Element equality as the containers use it for lookups: two references to objects are equal
/// when the objects compare equal (or, for objects without ==, when they are the same object).
template <class T>
bool objectsEqual(const T& a, const T& b) {
    if constexpr (IsPointerLike<T>::value) {
        using Pointee = std::remove_cvref_t<decltype(*a)>;
        if constexpr (std::equality_comparable<Pointee>) {
            if (a == b)
                return true;
            return a != nullptr && b != nullptr && *a == *b;
        } else {
            return a == b;
        }
    } else {
        return a == b;
    }
}

}  // namespace detail
}  // namespace lmkit
