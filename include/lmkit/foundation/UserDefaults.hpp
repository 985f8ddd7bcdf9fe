#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/Number.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace lmkit {

/// A property-list value: a number (its JSON kind is kept: integer, unsigned, floating), a
/// boolean, a string, data (a JSON binary value, see makeData), an array or a dictionary. JSON
/// null stands for "no value": storing it removes the key.
using DefaultsValue = nlohmann::ordered_json;
using DefaultsData = std::vector<std::uint8_t>;

/// The built-in identifier of the app group whose suite the app and its tunnel share (a
/// deployment file may name another; AppGroup::identifier() gives the one in force).
inline constexpr const char* kAppGroupIdentifier = "group.com.lmkit.shared";

/// A typed key-value store kept in one SQLite database per suite, so that the app and the tunnel
/// process read and write the same suite at once without losing a write.
///
/// Every write is committed to the database before it returns, so it is what the other process
/// reads next; nothing is cached across calls. `synchronize()` additionally makes the writes
/// durable against a power cut (the database and its write-ahead log are flushed to disk).
/// All operations are safe from any thread and never throw: a failing database logs an error
/// line ("[UserDefaults] ...") and the read gives nil or the write returns false.
class UserDefaults {
  public:
    /// Opens (or creates) the suite `suiteName` in the app-group directory. A suite that cannot be
    /// opened stops the process with one line naming the database's path: both processes depend on
    /// it from start-up on, and running on without it would silently lose settings.
    explicit UserDefaults(const std::string& suiteName);
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    /// Opens the suite, or gives nullptr and the reason (for tools that report instead of stop).
    static std::shared_ptr<UserDefaults> open(const std::string& suiteName,
                                              std::optional<Error>* error = nullptr);
    /// Opens a store at an explicit database path.
    static std::shared_ptr<UserDefaults> openAt(const std::filesystem::path& path,
                                                std::optional<Error>* error = nullptr);

    /// The process's own store (not shared with the other process): a database named after the
    /// running program under "<app group>/Standard/".
    static std::shared_ptr<UserDefaults> standard();
    /// The shared suite `suiteName` of the current app-group directory (empty: the app group's
    /// own suite, AppGroup::identifier()), one instance per path in the process. Fatal when the
    /// suite cannot be opened (see the constructor).
    static std::shared_ptr<UserDefaults> suite(const std::string& suiteName = {});

    /// The database file of suite `suiteName`: "<app group>/Preferences/<suiteName>.sqlite".
    static std::filesystem::path pathForSuite(const std::string& suiteName);

    const std::filesystem::path& path() const { return path_; }

    // Reading. A missing key gives nullopt (or the accessor's zero value).
    std::optional<DefaultsValue> objectForKey(const std::string& key) const;
    /// Also says why a read failed: a damaged database (SQLITE_CORRUPT) names SQLite's own
    /// integrity check of it. The file is never deleted or rewritten here.
    std::optional<DefaultsValue> objectForKey(const std::string& key,
                                              std::optional<Error>& error) const;
    std::optional<std::string> stringForKey(const std::string& key) const;
    std::optional<Number> numberForKey(const std::string& key) const;
    std::optional<DefaultsData> dataForKey(const std::string& key) const;
    std::optional<DefaultsValue> arrayForKey(const std::string& key) const;
    std::optional<DefaultsValue> dictionaryForKey(const std::string& key) const;
    /// Numbers convert; strings are read as their leading decimal number; anything else gives 0.
    long integerForKey(const std::string& key) const;
    double doubleForKey(const std::string& key) const;
    /// Numbers are true when non-zero; strings "YES", "true" or a non-zero number are true.
    bool boolForKey(const std::string& key) const;

    /// The conversions behind the typed accessors, for any stored value: a number converts (to a
    /// boolean by non-zero); a text gives its leading decimal number, or for a boolean true when
    /// its first character after blanks, a sign and zeros is Y, T or a digit 1-9 ("YES", "true",
    /// "1"); anything else gives 0 or false.
    static long integerValue(const DefaultsValue& value);
    static double doubleValue(const DefaultsValue& value);
    static bool boolValue(const DefaultsValue& value);
    /// Every key and its value, keys in ascending order (what could be read, when a read fails).
    DefaultsValue dictionaryRepresentation() const;
    /// Every key and its value, or nullopt and `error` when the list cannot be read whole (a
    /// damaged database is reported as in objectForKey).
    std::optional<DefaultsValue> readAll(std::optional<Error>& error) const;
    /// SQLite's integrity check of the database: nullopt when it is sound, else what it found.
    std::optional<std::string> integrityCheck() const;

    // Writing. Each returns true when the value is committed.
    bool setObject(const DefaultsValue& value, const std::string& key);
    bool setInteger(long value, const std::string& key) { return setObject(value, key); }
    bool setDouble(double value, const std::string& key) { return setObject(value, key); }
    bool setBool(bool value, const std::string& key) { return setObject(value, key); }
    bool removeObjectForKey(const std::string& key);

    /// Flushes every committed write to disk; true when it is durable.
    bool synchronize();

    /// How long a write waits for the other process to release the database (default 10 s).
    void setBusyTimeout(int milliseconds);

    /// A data value holding `bytes`.
    static DefaultsValue makeData(DefaultsData bytes);
    static DefaultsValue makeData(std::string_view bytes);
    static bool isData(const DefaultsValue& value) { return value.is_binary(); }

  private:
    struct Database;
    UserDefaults(std::filesystem::path path, std::unique_ptr<Database> database);
    static std::unique_ptr<Database> openDatabase(const std::filesystem::path& path,
                                                  std::optional<Error>* error);
    Error readFailure(int rc, const std::string& what) const;  // mutex_ held
    std::string integrityCheckLocked() const;                  // mutex_ held

    std::filesystem::path path_;
    mutable std::mutex mutex_;
    std::unique_ptr<Database> database_;  // guarded by mutex_
};

}  // namespace lmkit
