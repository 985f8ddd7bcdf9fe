#include "foundation/DefaultsCodec.hpp"

#include <cmath>
#include <cstdlib>

#include <sqlite3.h>

namespace lmkit::defaults_codec {

void bind(sqlite3_stmt* statement, int index, const DefaultsValue& value,
          std::vector<std::uint8_t>& storage) {
    auto bindKind = [&](Kind kind) { sqlite3_bind_int(statement, index, static_cast<int>(kind)); };
    switch (value.type()) {
        case DefaultsValue::value_t::number_integer:
            bindKind(Kind::Integer);
            sqlite3_bind_int64(statement, index + 1, value.get<std::int64_t>());
            break;
        case DefaultsValue::value_t::number_unsigned:
            bindKind(Kind::Unsigned);
            // Stored bit for bit: SQLite integers are signed.
            sqlite3_bind_int64(statement, index + 1,
                               static_cast<sqlite3_int64>(value.get<std::uint64_t>()));
            break;
        case DefaultsValue::value_t::number_float:
            bindKind(Kind::Floating);
            sqlite3_bind_double(statement, index + 1, value.get<double>());
            break;
        case DefaultsValue::value_t::boolean:
            bindKind(Kind::Boolean);
            sqlite3_bind_int(statement, index + 1, value.get<bool>() ? 1 : 0);
            break;
        case DefaultsValue::value_t::string: {
            bindKind(Kind::String);
            const auto& text = value.get_ref<const std::string&>();
            sqlite3_bind_text(statement, index + 1, text.data(), static_cast<int>(text.size()),
                              SQLITE_STATIC);
            break;
        }
        case DefaultsValue::value_t::binary: {
            bindKind(Kind::Data);
            const auto& bytes = value.get_binary();
            // A zero-length blob must not bind as NULL.
            sqlite3_bind_blob(statement, index + 1, bytes.empty() ? "" : (const void*)bytes.data(),
                              static_cast<int>(bytes.size()), SQLITE_STATIC);
            break;
        }
        default:
            bindKind(value.is_array() ? Kind::Array : Kind::Dictionary);
            storage = DefaultsValue::to_cbor(value);
            sqlite3_bind_blob(statement, index + 1, storage.data(),
                              static_cast<int>(storage.size()), SQLITE_STATIC);
            break;
    }
}

std::optional<DefaultsValue> decode(sqlite3_stmt* statement, int column, std::string& problem) {
    int kind = sqlite3_column_int(statement, column);
    int valueColumn = column + 1;
    auto blob = [&] {
        const auto* bytes =
            static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, valueColumn));
        return std::vector<std::uint8_t>(bytes,
                                         bytes + sqlite3_column_bytes(statement, valueColumn));
    };
    switch (static_cast<Kind>(kind)) {
        case Kind::Integer:
            return DefaultsValue(
                static_cast<std::int64_t>(sqlite3_column_int64(statement, valueColumn)));
        case Kind::Unsigned:
            return DefaultsValue(
                static_cast<std::uint64_t>(sqlite3_column_int64(statement, valueColumn)));
        case Kind::Floating:
            return DefaultsValue(sqlite3_column_double(statement, valueColumn));
        case Kind::Boolean:
            return DefaultsValue(sqlite3_column_int(statement, valueColumn) != 0);
        case Kind::String: {
            const auto* text =
                reinterpret_cast<const char*>(sqlite3_column_text(statement, valueColumn));
            return DefaultsValue(std::string(
                text ? text : "",
                static_cast<std::size_t>(sqlite3_column_bytes(statement, valueColumn))));
        }
        case Kind::Data:
            return DefaultsValue::binary(blob());
        case Kind::Array:
        case Kind::Dictionary: {
            auto value = DefaultsValue::from_cbor(blob(), true, false);
            bool expectArray = static_cast<Kind>(kind) == Kind::Array;
            if (value.is_discarded() || value.is_array() != expectArray ||
                value.is_object() == expectArray) {
                problem = "the stored container is damaged";
                return std::nullopt;
            }
            return value;
        }
    }
    problem = "unknown value kind " + std::to_string(kind);
    return std::nullopt;
}

}  // namespace lmkit::defaults_codec
