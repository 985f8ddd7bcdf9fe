#pragma once

// Record mapping: every record the service delivers (and every record kept in settings or handed
// to the tunnel) is a struct deriving from Model<Self> that lists its properties once, in one
// static table. One generic adapter (JSONAdapter) decodes and encodes every record from its table.
//
// Declaring a record:
//
//     struct Game : lmkit::Model<Game> {
//         std::optional<std::string> gid;           // nil when absent or null
//         std::optional<lmkit::Number> sort;        // keeps its JSON kind (integer, float, bool)
//         long region = 0;                          // scalars stay zero when nil
//         std::shared_ptr<GameExtra> extra;         // nested record: a JSON object
//         std::optional<std::vector<std::shared_ptr<Node>>> nodes;  // array of records
//         static const std::vector<lmkit::Property<Game>>& properties();
//     };
//
//     // Game.cpp: the table is built once, on first use.
//     const std::vector<Property<Game>>& Game::properties() {
//         static const std::vector<Property<Game>> table{
//             prop("gid", &Game::gid),                               // property name == JSON key
//             prop("sort", "config.sort", &Game::sort),              // dotted key path
//             prop("region", &Game::region, valueMappingTransformer<long>({{"cn", 1}})),
//             prop("extra", &Game::extra),                           // nested record by type
//             prop("nodes", &Game::nodes).withDefault({}),           // default when key absent
//         };
//         return table;
//     }
//
//     auto game = JSONAdapter::modelOfClass<Game>(json, &error);  // nullptr + error on failure
//     std::optional<Json> back = game->toJSONDictionary();        // nil (and a log line) on
//     failure
//
// Decoding rules: a missing key or JSON null gives nil (scalars: zero), which a property's
// converter sees like any other value; a value of the wrong kind for a plain property is kept as it
// stands: the typed member stays nil (or zero) and the record holds the JSON value for that
// property (valueOfOtherKind), writes it back when encoded and compares by it. A nested record or
// an array of records whose value (or element) is not a JSON object fails the whole decode with an
// error. Decoding never throws. Defaults (withDefault) fill only keys that are absent; an explicit
// JSON null stays nil. Encoding writes every table entry, nil as JSON null, at its key path.

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "lmkit/models/RegularExpression.hpp"
#include "lmkit/models/Url.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/Number.hpp"

namespace lmkit {

using Json = nlohmann::ordered_json;

template <class R>
struct Property;

/// Root of every mapped record.
class BaseModel {
  public:
    using ValuesOfOtherKind = std::map<std::string, Json, std::less<>>;

    BaseModel() = default;
    BaseModel(const BaseModel& other) : otherKind_(copyOf(other.otherKind_)) {}
    BaseModel& operator=(const BaseModel& other) {
        if (this != &other)
            otherKind_ = copyOf(other.otherKind_);
        return *this;
    }
    BaseModel(BaseModel&&) noexcept = default;
    BaseModel& operator=(BaseModel&&) noexcept = default;
    virtual ~BaseModel() = default;

    /// The record's JSON form (keys are the JSON key paths, values after reverse conversion), or
    /// nil after logging "[MTLJSONSerializing] model to json map error: ..." when encoding fails.
    virtual std::optional<Json> toJSONDictionary() const = 0;

    /// Records never reject a decoded value.
    bool validate() const { return true; }

    /// The JSON value a property holds as it stands because its kind is not the property's own
    /// (the text "1400" for a numeric property); nullptr when the property holds no such value.
    const Json* valueOfOtherKind(std::string_view property) const;
    /// Every property holding a value of another kind, by property name.
    const ValuesOfOtherKind& valuesOfOtherKind() const;
    /// Makes `property` hold `value` as it stands (decoding does this for a wrong-kind value).
    void holdValueOfOtherKind(std::string_view property, Json value);
    /// Setting a property through its typed member drops the value held for it.
    void dropValueOfOtherKind(std::string_view property);

    bool operator==(const BaseModel& other) const {
        return valuesOfOtherKind() == other.valuesOfOtherKind();
    }

  private:
    // Made on the first such value: nearly every record has none, and a service answer holds
    // tens of thousands of records.
    std::unique_ptr<ValuesOfOtherKind> otherKind_;

    static std::unique_ptr<ValuesOfOtherKind> copyOf(
        const std::unique_ptr<ValuesOfOtherKind>& values) {
        return values ? std::make_unique<ValuesOfOtherKind>(*values) : nullptr;
    }
};

/// Base of a record type; supplies the empty table (a record without one maps nothing) and
/// toJSONDictionary through the record's own table.
template <class R>
class Model : public BaseModel {
  public:
    static const std::vector<Property<R>>& properties() {
        static const std::vector<Property<R>> none;
        return none;
    }
    std::optional<Json> toJSONDictionary() const override;
};

/// Error domain and code of a failed decode (the mapping library's own).
inline constexpr const char* kJSONAdapterErrorDomain = "MTLJSONAdapterErrorDomain";
inline constexpr long kJSONAdapterErrorInvalidJSONDictionary = 3;

enum class DecodeStatus { Ok, Mismatch, Failed };

/// A reversible value converter for a property of type T. `forward` receives the JSON value (null
/// for nil) and sets the property; it returns false only for a failure that must fail the whole
/// decode (with `error` set). `reverse` gives the JSON value of the property (null for nil).
template <class T>
struct Transformer {
    std::function<bool(const Json& in, T& out, Error& error)> forward;
    std::function<Json(const T& value)> reverse;
    // The kinds of JSON value the converter takes; any other non-null value is kept as it stands
    // (the member stays nil). Empty: the converter takes every value.
    std::function<bool(const Json& in)> accepts;
    // A JSON value the converter takes and gives back unchanged (for generated round trips); the
    // argument is the nesting depth of the record being sampled.
    std::function<Json(int depth)> sample;
};

namespace models_detail {

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
concept Record = std::is_base_of_v<BaseModel, T>;

template <class T>
struct IsRecordPointer : std::false_type {};
template <Record R>
struct IsRecordPointer<std::shared_ptr<R>> : std::true_type {};

// A member holding an array of records, possibly nil: what can be decoded element by element.
template <class T>
struct RecordArray : std::false_type {};
template <Record R>
struct RecordArray<std::vector<std::shared_ptr<R>>> : std::true_type {
    using Element = std::shared_ptr<R>;
    static void begin(std::vector<Element>& member) { member.clear(); }
    static std::vector<Element>& values(std::vector<Element>& member) { return member; }
    static const std::vector<Element>* present(const std::vector<Element>& member) {
        return &member;
    }
};
template <Record R>
struct RecordArray<std::optional<std::vector<std::shared_ptr<R>>>> : std::true_type {
    using Element = std::shared_ptr<R>;
    static void begin(std::optional<std::vector<Element>>& member) { member.emplace(); }
    static std::vector<Element>& values(std::optional<std::vector<Element>>& member) {
        return *member;
    }
    static const std::vector<Element>* present(const std::optional<std::vector<Element>>& member) {
        return member ? &*member : nullptr;
    }
};

Error invalidInput(std::string description);
Error prefixed(std::string_view prefix, const Error& error);
std::string_view kindName(const Json& json);
std::vector<std::string> splitKeyPath(std::string_view keyPath);

/// Converts a number to an arithmetic type without undefined behaviour (out-of-range floating
/// values clamp; integers narrow as the platform's casts do).
template <class T>
T numberAs(const Number& n) {
    if constexpr (std::is_same_v<T, bool>) {
        return n.boolValue();
    } else if constexpr (std::is_floating_point_v<T>) {
        double d = n.doubleValue();
        if constexpr (std::is_same_v<T, float>) {
            if (std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max())
                return d > 0 ? std::numeric_limits<float>::infinity()
                             : -std::numeric_limits<float>::infinity();
        }
        return static_cast<T>(d);
    } else if constexpr (std::is_signed_v<T>) {
        return static_cast<T>(n.intValue());
    } else {
        return static_cast<T>(n.unsignedValue());
    }
}

template <class T>
Json arithmeticJson(T v) {
    if constexpr (std::is_same_v<T, bool>) {
        return Json(v);
    } else if constexpr (std::is_floating_point_v<T>) {
        return Json(static_cast<double>(v));
    } else if constexpr (std::is_signed_v<T>) {
        return Json(static_cast<std::int64_t>(v));
    } else {
        return Json(static_cast<std::uint64_t>(v));
    }
}

}  // namespace models_detail

/// How a C++ member type reads from and writes to JSON. Specialised below for the member types
/// records use; an unsupported member type fails to compile.
template <class T>
struct Codec;

/// Whether member type T reads and writes JSON without a transformer.
template <class T>
concept HasCodec = requires(const Json& j, T& v, Error& e) {
    Codec<T>::decode(j, v, e);
};

template <class T>
requires std::is_arithmetic_v<T>
struct Codec<T> {
    static DecodeStatus decode(const Json& j, T& out, Error&) {
        if (auto n = Number::fromJson(j)) {
            out = models_detail::numberAs<T>(*n);
            return DecodeStatus::Ok;
        }
        return DecodeStatus::Mismatch;
    }
    static Json encode(const T& v) { return models_detail::arithmeticJson(v); }
    static void setNil(T& v) { v = T{}; }
};

template <>
struct Codec<std::string> {
    static DecodeStatus decode(const Json& j, std::string& out, Error&) {
        if (!j.is_string())
            return DecodeStatus::Mismatch;
        out = j.get_ref<const std::string&>();
        return DecodeStatus::Ok;
    }
    static Json encode(const std::string& v) { return Json(v); }
    static void setNil(std::string& v) { v.clear(); }
};

template <>
struct Codec<Number> {
    static DecodeStatus decode(const Json& j, Number& out, Error&) {
        if (auto n = Number::fromJson(j)) {
            out = *n;
            return DecodeStatus::Ok;
        }
        return DecodeStatus::Mismatch;
    }
    static Json encode(const Number& v) { return v.toJson(); }
    static void setNil(Number& v) { v = Number(); }
};

template <>
struct Codec<Json> {
    static DecodeStatus decode(const Json& j, Json& out, Error&) {
        out = j;
        return DecodeStatus::Ok;
    }
    static Json encode(const Json& v) { return v; }
    static void setNil(Json& v) { v = nullptr; }
};

/// URLs read from strings (the mapping library converts URL properties by default).
template <>
struct Codec<Url> {
    static DecodeStatus decode(const Json& j, Url& out, Error&) {
        if (!j.is_string())
            return DecodeStatus::Mismatch;
        auto url = Url::fromString(j.get_ref<const std::string&>());
        if (!url)
            return DecodeStatus::Mismatch;
        out = std::move(*url);
        return DecodeStatus::Ok;
    }
    static Json encode(const Url& v) { return Json(v.absoluteString()); }
};

template <>
struct Codec<RegularExpression> {
    static DecodeStatus decode(const Json& j, RegularExpression& out, Error&) {
        if (!j.is_string())
            return DecodeStatus::Mismatch;
        auto re = RegularExpression::compile(j.get_ref<const std::string&>());
        if (!re)
            return DecodeStatus::Mismatch;
        out = std::move(*re);
        return DecodeStatus::Ok;
    }
    static Json encode(const RegularExpression& v) { return Json(v.pattern()); }
};

template <class T>
requires HasCodec<T>
struct Codec<std::optional<T>> {
    static DecodeStatus decode(const Json& j, std::optional<T>& out, Error& error) {
        T value{};
        auto status = Codec<T>::decode(j, value, error);
        if (status == DecodeStatus::Ok)
            out = std::move(value);
        return status;
    }
    static Json encode(const std::optional<T>& v) { return v ? Codec<T>::encode(*v) : Json(); }
    static void setNil(std::optional<T>& v) { v.reset(); }
};

namespace models_detail {
template <Record R>
bool decodeRecord(const Json& object, R& record, Error& error);
template <Record R>
Json encodeRecord(const R& record);
}  // namespace models_detail

/// A nested record: its value must be a JSON object, anything else fails the decode.
template <models_detail::Record R>
struct Codec<std::shared_ptr<R>> {
    static DecodeStatus decode(const Json& j, std::shared_ptr<R>& out, Error& error) {
        if (!j.is_object()) {
            error = models_detail::invalidInput("expected a JSON object, got " +
                                                std::string(models_detail::kindName(j)));
            return DecodeStatus::Failed;
        }
        auto record = std::make_shared<R>();
        if (!models_detail::decodeRecord(j, *record, error))
            return DecodeStatus::Failed;
        out = std::move(record);
        return DecodeStatus::Ok;
    }
    static Json encode(const std::shared_ptr<R>& v) {
        return v ? models_detail::encodeRecord(*v) : Json();
    }
    static void setNil(std::shared_ptr<R>& v) { v.reset(); }
};

/// Arrays: an element of the wrong kind makes the whole value nil, except for arrays of records,
/// where a non-array value or a non-object element fails the decode.
template <class E>
requires HasCodec<E>
struct Codec<std::vector<E>> {
    static constexpr bool kOfRecords = models_detail::IsRecordPointer<E>::value;

    static DecodeStatus decode(const Json& j, std::vector<E>& out, Error& error) {
        if (!j.is_array()) {
            if constexpr (kOfRecords) {
                error = models_detail::invalidInput("expected a JSON array, got " +
                                                    std::string(models_detail::kindName(j)));
                return DecodeStatus::Failed;
            }
            return DecodeStatus::Mismatch;
        }
        std::vector<E> values;
        values.reserve(j.size());
        std::size_t index = 0;
        for (const auto& element : j) {
            E value{};
            auto status = Codec<E>::decode(element, value, error);
            if (status == DecodeStatus::Failed) {
                error = models_detail::prefixed("element " + std::to_string(index), error);
                return status;
            }
            if (status == DecodeStatus::Mismatch)
                return status;
            values.push_back(std::move(value));
            ++index;
        }
        out = std::move(values);
        return DecodeStatus::Ok;
    }
    static Json encode(const std::vector<E>& v) {
        Json array = Json::array();
        array.get_ref<Json::array_t&>().reserve(v.size());
        for (const auto& e : v)
            array.push_back(Codec<E>::encode(e));
        return array;
    }
};

/// Dictionaries keyed by string.
template <class E>
requires HasCodec<E>
struct Codec<std::map<std::string, E>> {
    static DecodeStatus decode(const Json& j, std::map<std::string, E>& out, Error& error) {
        if (!j.is_object())
            return DecodeStatus::Mismatch;
        std::map<std::string, E> values;
        for (const auto& [key, element] : j.items()) {
            E value{};
            auto status = Codec<E>::decode(element, value, error);
            if (status == DecodeStatus::Failed) {
                error = models_detail::prefixed(key, error);
                return status;
            }
            if (status == DecodeStatus::Mismatch)
                return status;
            values.emplace(key, std::move(value));
        }
        out = std::move(values);
        return DecodeStatus::Ok;
    }
    static Json encode(const std::map<std::string, E>& v) {
        Json object = Json::object();
        for (const auto& [key, e] : v)
            object[key] = Codec<E>::encode(e);
        return object;
    }
};

/// A JSON value of member type T with every field set, for generated round-trip tests: records
/// nest to a bounded depth (a game's zone games are games), below it they are empty objects.
template <class T>
struct Sample;

namespace models_detail {
inline constexpr int kSampleDepth = 2;
template <Record R>
Json sampleDocument(int depth);
}  // namespace models_detail

template <class T>
requires std::is_arithmetic_v<T>
struct Sample<T> {
    static Json make(int) {
        if constexpr (std::is_same_v<T, bool>)
            return Json(true);
        else if constexpr (std::is_floating_point_v<T>)
            return Json(2.5);
        else
            return Json(3);
    }
};
template <>
struct Sample<std::string> {
    static Json make(int) { return Json("text"); }
};
template <>
struct Sample<Number> {
    static Json make(int) { return Json(7); }
};
template <>
struct Sample<Json> {
    static Json make(int) { return Json{{"any", "value"}}; }
};
template <>
struct Sample<Url> {
    static Json make(int) { return Json("https://example.com/a?b=c"); }
};
template <>
struct Sample<RegularExpression> {
    static Json make(int) { return Json("^ab+c$"); }
};
template <class T>
struct Sample<std::optional<T>> {
    static Json make(int depth) { return Sample<T>::make(depth); }
};
template <class E>
struct Sample<std::vector<E>> {
    static Json make(int depth) { return Json::array({Sample<E>::make(depth)}); }
};
template <class E>
struct Sample<std::map<std::string, E>> {
    static Json make(int depth) { return Json{{"key", Sample<E>::make(depth)}}; }
};
template <models_detail::Record R>
struct Sample<std::shared_ptr<R>> {
    static Json make(int depth) {
        return depth >= models_detail::kSampleDepth ? Json::object()
                                                    : models_detail::sampleDocument<R>(depth + 1);
    }
};

/// One row of a record's property table (type-erased; built by prop()).
template <class R>
struct Property {
    std::string name;
    std::string keyPath;
    std::vector<std::string> path;  // keyPath split at its dots
    // Sets the member from a present JSON value (null included); false fails the decode.
    std::function<bool(R&, const Json&, Error&)> decode;
    std::function<Json(const R&)> encode;
    // Fills the member when the key is absent from the JSON; empty when there is no default.
    std::function<void(R&)> applyDefault;
    // A JSON value of the property's own kind, with every nested field set (see sampleDocument).
    std::function<Json(int depth)> sample;
    // Whether a converter reads the value: it also sees an absent key, as nil.
    bool transformed = false;
    // An array of records without a converter can also be decoded one element at a time, as its
    // text is parsed: `beginElements` makes the member an empty array, `appendElement` decodes
    // one element onto its end, `adopt` moves the member from one record to another. Empty for
    // every other property.
    std::function<void(R&)> beginElements;
    std::function<bool(R&, const Json& element, Error&)> appendElement;
    std::function<void(R& to, R& from)> adopt;
    // Hands the JSON form of each element of such an array to `element`, one at a time; false
    // when the member is nil.
    std::function<bool(const R&, const std::function<void(const Json&)>& element)> eachElement;
};

/// The typed builder that prop() returns; converts to Property<R> in a table.
template <class R, class M>
class TypedProperty {
  public:
    TypedProperty(std::string_view name, std::string_view keyPath, M R::*member,
                  std::optional<Transformer<M>> transformer = std::nullopt)
        : name_(name), keyPath_(keyPath), member_(member), transformer_(std::move(transformer)) {}

    /// Value used when the key is absent from the incoming JSON (incoming values win).
    TypedProperty withDefault(M value) && {
        default_ = std::move(value);
        return std::move(*this);
    }

    operator Property<R>() const {
        Property<R> p;
        p.name = name_;
        p.keyPath = keyPath_;
        p.path = models_detail::splitKeyPath(keyPath_);
        auto member = member_;
        if (transformer_) {
            auto forward = transformer_->forward;
            auto reverse = transformer_->reverse;
            auto accepts = transformer_->accepts;
            p.decode = [member, forward, accepts, name = name_](R& r, const Json& j, Error& e) {
                if (accepts && !j.is_null() && !accepts(j)) {
                    r.*member = M{};
                    r.holdValueOfOtherKind(name, j);
                    return true;
                }
                return forward(j, r.*member, e);
            };
            p.encode = [member, reverse](const R& r) { return reverse(r.*member); };
            p.sample = transformer_->sample;
            p.transformed = true;
        } else if constexpr (HasCodec<M>) {
            p.decode = [member, name = name_](R& r, const Json& j, Error& e) {
                M& field = r.*member;
                if (j.is_null()) {
                    Codec<M>::setNil(field);
                    return true;
                }
                auto status = Codec<M>::decode(j, field, e);
                if (status == DecodeStatus::Mismatch) {
                    Codec<M>::setNil(field);
                    r.holdValueOfOtherKind(name, j);
                }
                return status != DecodeStatus::Failed;
            };
            p.encode = [member](const R& r) { return Codec<M>::encode(r.*member); };
            p.sample = [](int depth) { return Sample<M>::make(depth); };
            if constexpr (models_detail::RecordArray<M>::value) {
                using Array = models_detail::RecordArray<M>;
                p.beginElements = [member](R& r) { Array::begin(r.*member); };
                p.appendElement = [member](R& r, const Json& element, Error& e) {
                    typename Array::Element value;
                    // A record either decodes or fails; it is never of another kind.
                    if (Codec<typename Array::Element>::decode(element, value, e) !=
                        DecodeStatus::Ok)
                        return false;
                    Array::values(r.*member).push_back(std::move(value));
                    return true;
                };
                p.adopt = [member](R& to, R& from) { to.*member = std::move(from.*member); };
                p.eachElement = [member](const R& r, const std::function<void(const Json&)>& f) {
                    const auto* values = Array::present(r.*member);
                    if (!values)
                        return false;
                    for (const auto& value : *values)
                        f(Codec<typename Array::Element>::encode(value));
                    return true;
                };
            }
        }
        if (default_) {
            p.applyDefault = [member, value = *default_](R& r) { r.*member = value; };
        }
        return p;
    }

  private:
    std::string name_;
    std::string keyPath_;
    M R::*member_;
    std::optional<Transformer<M>> transformer_;
    std::optional<M> default_;
};

/// A property whose JSON key is its own name.
template <class R, class M>
TypedProperty<R, M> prop(std::string_view name, M R::*member) {
    static_assert(HasCodec<M>, "this member type needs a transformer");
    return {name, name, member};
}
/// A property read from another key or a dotted key path.
template <class R, class M>
TypedProperty<R, M> prop(std::string_view name, std::string_view keyPath, M R::*member) {
    static_assert(HasCodec<M>, "this member type needs a transformer");
    return {name, keyPath, member};
}
template <class R, class M>
TypedProperty<R, M> prop(std::string_view name, M R::*member, Transformer<M> transformer) {
    return {name, name, member, std::move(transformer)};
}
template <class R, class M>
TypedProperty<R, M> prop(std::string_view name, std::string_view keyPath, M R::*member,
                         Transformer<M> transformer) {
    return {name, keyPath, member, std::move(transformer)};
}

namespace models_detail {

/// The table of a record type, with the lookup structure the decoder needs, built once.
template <class R>
struct Table {
    const std::vector<Property<R>>& properties;
    // First key-path segment to the indexes of the properties that start with it.
    std::unordered_map<std::string_view, std::vector<std::uint16_t>> byFirstKey;
    // For each property: whether it can be appended to a fresh object without a key search.
    std::vector<bool> appendable;
    // For each property: the JSON of its initial value (nil, zero or false).
    std::vector<Json> initial;

    Table() : properties(R::properties()) {
        const R fresh{};
        for (const auto& p : properties)
            initial.push_back(p.encode(fresh));
        std::unordered_map<std::string_view, int> uses;
        for (std::size_t i = 0; i < properties.size(); ++i) {
            byFirstKey[properties[i].path.front()].push_back(static_cast<std::uint16_t>(i));
            ++uses[properties[i].path.front()];
        }
        for (const auto& p : properties)
            appendable.push_back(p.path.size() == 1 && uses[p.path.front()] == 1);
    }

    static const Table& shared() {
        static const Table table;
        return table;
    }
};

// Records nest through their own types (a game's zone games are games), so a hostile document
// could nest them deep enough to exhaust the stack; no service record nests anywhere near this.
inline constexpr int kMaxRecordDepth = 128;
inline thread_local int recordDepth = 0;

template <Record R>
bool decodeRecord(const Json& object, R& record, Error& error) {
    if (recordDepth >= kMaxRecordDepth) {
        error = invalidInput("records nested deeper than " + std::to_string(kMaxRecordDepth) +
                             " levels");
        return false;
    }
    ++recordDepth;
    struct Leave {
        ~Leave() { --recordDepth; }
    } leave;
    const auto& table = Table<R>::shared();
    const auto& properties = table.properties;
    const std::size_t count = properties.size();
    if (count == 0)
        return true;

    // Where each property's value sits in this JSON object (nullptr: absent).
    constexpr std::size_t kInline = 64;
    std::array<const Json*, kInline> inlineSlots;
    std::vector<const Json*> heapSlots;
    const Json** slots = inlineSlots.data();
    if (count > kInline) {
        heapSlots.resize(count);
        slots = heapSlots.data();
    }
    std::fill(slots, slots + count, nullptr);

    for (const auto& [key, value] : object.get_ref<const Json::object_t&>()) {
        auto hit = table.byFirstKey.find(std::string_view(key));
        if (hit == table.byFirstKey.end())
            continue;
        for (auto index : hit->second) {
            const auto& path = properties[index].path;
            const Json* current = &value;
            for (std::size_t depth = 1; current && depth < path.size(); ++depth) {
                // A missing or non-object step on the way leaves the property absent.
                if (!current->is_object()) {
                    current = nullptr;
                    break;
                }
                auto next = current->find(path[depth]);
                current = next == current->end() ? nullptr : &*next;
            }
            slots[index] = current;
        }
    }

    for (std::size_t i = 0; i < count; ++i) {
        const auto& property = properties[i];
        if (!slots[i]) {
            // An absent key is nil: a default fills it, else a converter turns nil into its own
            // value (the expressions converter gives an empty list), as it does for a JSON null.
            if (property.applyDefault) {
                property.applyDefault(record);
            } else if (property.transformed && !property.decode(record, Json(), error)) {
                error = prefixed(property.name, error);
                return false;
            }
            continue;
        }
        if (!property.decode(record, *slots[i], error)) {
            error = prefixed(property.name, error);
            return false;
        }
    }
    return true;
}

/// Whether every object on the way to the last segment of `path` exists in `json`.
inline bool pathExists(const Json& json, const std::vector<std::string>& path) {
    const Json* current = &json;
    for (std::size_t depth = 0; depth + 1 < path.size(); ++depth) {
        auto next = current->find(path[depth]);
        if (next == current->end() || !next->is_object())
            return false;
        current = &*next;
    }
    return true;
}

template <Record R>
Json encodeRecord(const R& record) {
    const auto& table = Table<R>::shared();
    Json out = Json::object();
    auto& members =
        static_cast<typename Json::object_t::Container&>(out.get_ref<Json::object_t&>());
    members.reserve(table.properties.size());
    for (std::size_t i = 0; i < table.properties.size(); ++i) {
        const auto& property = table.properties[i];
        const Json* held = record.valueOfOtherKind(property.name);
        Json value = held ? *held : property.encode(record);
        if (table.appendable[i]) {
            members.emplace_back(property.path.front(), std::move(value));
            continue;
        }
        // A property inside an object that nothing else wrote, still at its initial value, is
        // left out: writing it would invent that object (a start-up configuration without
        // "grayscale_switch" would come back with one). Decoding gives the initial value anyway.
        if (!held && value == table.initial[i] && !pathExists(out, property.path))
            continue;
        Json* target = &out;
        for (std::size_t depth = 0; depth + 1 < property.path.size(); ++depth) {
            Json& next = (*target)[property.path[depth]];
            if (!next.is_object())
                next = Json::object();
            target = &next;
        }
        (*target)[property.path.back()] = std::move(value);
    }
    return out;
}

/// A document of record R with every property set at its key path (null for a converter
/// without a sample).
template <Record R>
Json sampleDocument(int depth) {
    Json out = Json::object();
    for (const auto& property : R::properties()) {
        Json* target = &out;
        for (std::size_t i = 0; i + 1 < property.path.size(); ++i) {
            Json& next = (*target)[property.path[i]];
            if (!next.is_object())
                next = Json::object();
            target = &next;
        }
        Json value = property.sample ? property.sample(depth) : Json();
        Json& slot = (*target)[property.path.back()];
        // A whole-object property and the properties inside it share one object.
        if (slot.is_object() && value.is_object())
            slot.update(value);
        else if (!slot.is_object())
            slot = std::move(value);
    }
    return out;
}

void logEncodingFailure(const Error& error);

/// What decoding a record from JSON text needs of its type (see decodeText).
class TextDecoding {
  public:
    virtual ~TextDecoding() = default;
    /// The property that reads top-level `key` whole as an array of records, or -1.
    virtual int arrayProperty(std::string_view key) const = 0;
    /// Top-level `key` appears: an array read before under the same key no longer counts (as in
    /// a parsed document, the last of repeated keys holds).
    virtual void forget(std::string_view key) = 0;
    /// The array of `property` begins.
    virtual void beginArray(int property) = 0;
    /// Decodes the next element of that array; false (with `error` set) fails the decode.
    virtual bool element(int property, const Json& element, Error& error) = 0;
    /// Decodes the rest of the document (the arrays' keys hold null) and takes the arrays in.
    virtual bool finish(const Json& rest, Error& error) = 0;
};

/// Parses `text`, handing each element of a top-level array of records to `decoding` as soon as
/// it is parsed and dropping it, then the rest of the document to finish(). False (with `error`
/// set) when the text is not JSON or decoding fails. `rest` receives the rest when given.
bool decodeText(std::string_view text, TextDecoding& decoding, Error& error, Json* rest);

template <Record R>
class RecordTextDecoding final : public TextDecoding {
  public:
    int arrayProperty(std::string_view key) const override {
        auto hit = table_.byFirstKey.find(key);
        if (hit == table_.byFirstKey.end())
            return -1;
        for (auto index : hit->second)
            if (table_.appendable[index] && table_.properties[index].appendElement)
                return index;
        return -1;
    }
    void forget(std::string_view key) override {
        if (int property = arrayProperty(key); property >= 0)
            streamed_[property] = false;
    }
    void beginArray(int property) override {
        table_.properties[property].beginElements(staged_);
        streamed_[property] = true;
        elements_[property] = 0;
    }
    bool element(int property, const Json& element, Error& error) override {
        const auto& p = table_.properties[property];
        // The elements sit one level below the record, as when the whole document is decoded.
        ++recordDepth;
        struct Leave {
            ~Leave() { --recordDepth; }
        } leave;
        if (!p.appendElement(staged_, element, error)) {
            error =
                prefixed(p.name, prefixed("element " + std::to_string(elements_[property]), error));
            return false;
        }
        ++elements_[property];
        return true;
    }
    bool finish(const Json& rest, Error& error) override {
        if (!rest.is_object()) {
            error = invalidInput("expected a JSON object, got " + std::string(kindName(rest)));
            return false;
        }
        auto record = std::make_shared<R>();
        if (!decodeRecord(rest, *record, error))
            return false;
        for (std::size_t i = 0; i < streamed_.size(); ++i)
            if (streamed_[i])
                table_.properties[i].adopt(*record, staged_);
        record_ = std::move(record);
        return true;
    }
    std::shared_ptr<R> record() { return std::move(record_); }

  private:
    const Table<R>& table_ = Table<R>::shared();
    R staged_;  // holds the arrays while they are read
    std::vector<bool> streamed_ = std::vector<bool>(table_.properties.size());
    std::vector<std::size_t> elements_ = std::vector<std::size_t>(table_.properties.size());
    std::shared_ptr<R> record_;
};

}  // namespace models_detail

/// Decodes and encodes records through their property tables. No operation throws.
class JSONAdapter {
  public:
    /// One record from a JSON object; nullptr (and `error` set) when `json` is no object or a
    /// nested record fails.
    template <models_detail::Record R>
    static std::shared_ptr<R> modelOfClass(const Json& json, Error* error = nullptr) {
        Error failure;
        try {
            if (!json.is_object()) {
                failure = models_detail::invalidInput("expected a JSON object, got " +
                                                      std::string(models_detail::kindName(json)));
            } else {
                auto record = std::make_shared<R>();
                if (models_detail::decodeRecord(json, *record, failure))
                    return record;
            }
        } catch (const std::exception& e) {
            failure = models_detail::invalidInput(e.what());
        }
        if (error)
            *error = std::move(failure);
        return nullptr;
    }

    /// One record from JSON text, as modelOfClass(Json::parse(text)) gives it, but never holding
    /// the whole document parsed: each element of an array of records under a top-level key is
    /// decoded as soon as it is parsed, so a large node list costs its records, not its parse
    /// tree as well. nullptr (and `error` set) when the text is not JSON or the record fails.
    /// `rest`, when given, receives the document without those arrays (their keys hold null).
    template <models_detail::Record R>
    static std::shared_ptr<R> modelOfClassFromText(std::string_view text, Error* error = nullptr,
                                                   Json* rest = nullptr) {
        Error failure;
        try {
            models_detail::RecordTextDecoding<R> decoding;
            if (models_detail::decodeText(text, decoding, failure, rest))
                return decoding.record();
        } catch (const std::exception& e) {
            failure = models_detail::invalidInput(e.what());
        }
        if (error)
            *error = std::move(failure);
        return nullptr;
    }

    /// Records from a JSON array of objects; nil (and `error` set) when any element fails.
    template <models_detail::Record R>
    static std::optional<std::vector<std::shared_ptr<R>>> modelsOfClass(const Json& json,
                                                                        Error* error = nullptr) {
        Error failure;
        try {
            std::vector<std::shared_ptr<R>> records;
            if (Codec<std::vector<std::shared_ptr<R>>>::decode(json, records, failure) ==
                DecodeStatus::Ok)
                return records;
        } catch (const std::exception& e) {
            failure = models_detail::invalidInput(e.what());
        }
        if (error)
            *error = std::move(failure);
        return std::nullopt;
    }

    /// The JSON object of a record; nil (and `error` set) when encoding fails.
    template <models_detail::Record R>
    static std::optional<Json> JSONDictionaryFromModel(const R& model, Error* error = nullptr) {
        try {
            return models_detail::encodeRecord(model);
        } catch (const std::exception& e) {
            if (error)
                *error = models_detail::invalidInput(e.what());
        }
        return std::nullopt;
    }

    template <models_detail::Record R>
    static std::optional<Json> JSONArrayFromModels(const std::vector<std::shared_ptr<R>>& models,
                                                   Error* error = nullptr) {
        try {
            return Codec<std::vector<std::shared_ptr<R>>>::encode(models);
        } catch (const std::exception& e) {
            if (error)
                *error = models_detail::invalidInput(e.what());
        }
        return std::nullopt;
    }
};

template <class R>
std::optional<Json> Model<R>::toJSONDictionary() const {
    Error error;
    auto json = JSONAdapter::JSONDictionaryFromModel(static_cast<const R&>(*this), &error);
    if (!json)
        models_detail::logEncodingFailure(error);
    return json;
}

}  // namespace lmkit
