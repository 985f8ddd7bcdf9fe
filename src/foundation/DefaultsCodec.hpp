#pragma once

// How a defaults value sits in a row of the defaults table: a kind column and a value column.
// Scalars keep their own SQLite type so that the table reads plainly in the sqlite3 shell;
// arrays and dictionaries are CBOR, which keeps data members and number kinds.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/foundation/UserDefaults.hpp"

struct sqlite3_stmt;

namespace lmkit::defaults_codec {

enum class Kind : int {
    Integer = 0,
    Unsigned = 1,
    Floating = 2,
    Boolean = 3,
    String = 4,
    Data = 5,
    Array = 6,
    Dictionary = 7,
};

/// Binds `value` (not null) as kind at `index` and value at `index + 1`. `storage` must outlive
/// the statement's next step.
void bind(sqlite3_stmt* statement, int index, const DefaultsValue& value,
          std::vector<std::uint8_t>& storage);

/// Reads the kind at column `column` and the value at `column + 1`; nullopt with `problem` set
/// when the row does not hold a valid value.
std::optional<DefaultsValue> decode(sqlite3_stmt* statement, int column, std::string& problem);

}  // namespace lmkit::defaults_codec
