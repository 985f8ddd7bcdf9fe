#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

namespace lmkit {

/// Options of the containers' enumerations.
enum EnumerationOptions : unsigned {
    kEnumerationConcurrent = 1u << 0,  // accepted; the walk still runs on the calling thread
    kEnumerationReverse = 1u << 1,     // walk from the last element to the first
};

/// The index that says "not found" (the largest signed 64-bit value).
inline constexpr std::size_t kNotFound = 0x7FFFFFFFFFFFFFFF;

/// Where a container reads its first contents from (initWithContentsOfFile:): a file holding the
/// container's JSON form, an array for an array and an object for a dictionary.
struct ContentsOfFile {
    std::filesystem::path path;
};

/// An archive of a container to decode (initWithCoder:): its JSON form, as above.
struct Coder {
    const nlohmann::ordered_json& archive;
};

namespace detail {

/// The JSON document in the file, or nil when the file cannot be read or parsed.
std::optional<nlohmann::ordered_json> readJSONFile(const std::filesystem::path& path);

/// The elements of a JSON array, or nil when it is not one or an element is not a T.
template <class T>
std::optional<std::vector<T>> arrayFromJSON(const std::optional<nlohmann::ordered_json>& json) {
    if (!json || !json->is_array())
        return std::nullopt;
    try {
        return json->get<std::vector<T>>();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

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

/// The pairs of a JSON object, or nil when it is not one, a key does not make a Key or a value
/// is not a Value.
template <class Key, class Value, class Map>
std::optional<Map> dictionaryFromJSON(const std::optional<nlohmann::ordered_json>& json) {
    if constexpr (!std::is_constructible_v<Key, std::string>) {
        return std::nullopt;
    } else {
        if (!json || !json->is_object())
            return std::nullopt;
        try {
            Map map;
            for (const auto& [key, value] : json->items())
                map.insert_or_assign(Key(key), value.template get<Value>());
            return map;
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }
}

}  // namespace detail
}  // namespace lmkit
