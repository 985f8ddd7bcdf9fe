#include "lmkit/foundation/UserDefaults.hpp"

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include <sqlite3.h>

#include "foundation/DefaultsCodec.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/platform/AppGroup.hpp"

namespace lmkit {

namespace {

// A write waits this long for the other process to finish its own before it gives up: the tunnel
// and the app write in short bursts, so a longer wait means something is stuck.
constexpr int kDefaultBusyTimeoutMilliseconds = 10'000;

constexpr const char* kErrorDomain = "UserDefaultsErrorDomain";

Error sqliteError(sqlite3* db, const std::string& step, const std::filesystem::path& path) {
    std::string reason = db ? sqlite3_errmsg(db) : "out of memory";
    return Error::withDescription(kErrorDomain, db ? sqlite3_extended_errcode(db) : SQLITE_NOMEM,
                                  step + " " + path.string() + ": " + reason);
}

void report(const std::string& text) {
    log::error("[UserDefaults] " + text);
}

bool isValidSuiteName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// Flushes one file's written pages to disk; a missing file has nothing to flush.
bool flushFile(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

std::string programName() {
    std::ifstream comm("/proc/self/comm");
    std::string name;
    std::getline(comm, name);
    return isValidSuiteName(name) ? name : "lmkit";
}

}  // namespace

struct UserDefaults::Database {
    sqlite3* db = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* remove = nullptr;
    sqlite3_stmt* selectAll = nullptr;

    ~Database() {
        for (auto* statement : {select, upsert, remove, selectAll})
            sqlite3_finalize(statement);
        sqlite3_close_v2(db);
    }
};

std::unique_ptr<UserDefaults::Database> UserDefaults::openDatabase(
    const std::filesystem::path& path, std::optional<Error>* error) {
    auto fail = [&](Error e) -> std::unique_ptr<Database> {
        if (error)
            *error = std::move(e);
        return nullptr;
    };
    Error made;
    if (!AppGroup::makePrivateDirectory(path.parent_path(), &made))
        return fail(Error::withDescription(kErrorDomain, made.code,
                                           "cannot create the directory of " + path.string() +
                                               ": " + made.localizedDescription()));
    // The database holds tokens: create it 0600 whatever the umask; SQLite gives its WAL and
    // shared-memory files the database file's mode.
    if (int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, AppGroup::kFileMode); fd >= 0) {
        struct stat st {};
        if (::fstat(fd, &st) == 0 && st.st_size == 0)
            ::fchmod(fd, AppGroup::kFileMode);
        ::close(fd);
    }

    auto database = std::make_unique<Database>();
    int rc =
        sqlite3_open_v2(path.c_str(), &database->db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK)
        return fail(sqliteError(database->db, "cannot open", path));
    sqlite3_extended_result_codes(database->db, 1);
    sqlite3_busy_timeout(database->db, kDefaultBusyTimeoutMilliseconds);

    // WAL lets one process read while the other writes; NORMAL commits are atomic and survive a
    // killed process, and synchronize() adds the flush that makes them survive a power cut.
    const char* setup =
        "PRAGMA journal_mode=WAL;"
        "PRAGMA synchronous=NORMAL;"
        "CREATE TABLE IF NOT EXISTS defaults("
        " key TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value) WITHOUT ROWID;";
    char* message = nullptr;
    rc = sqlite3_exec(database->db, setup, nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        std::string reason = message ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        return fail(Error::withDescription(kErrorDomain, rc,
                                           "cannot prepare " + path.string() + ": " + reason));
    }
    struct Prepared {
        sqlite3_stmt** statement;
        const char* sql;
    };
    for (auto [statement, sql] : {
             Prepared{&database->select, "SELECT kind, value FROM defaults WHERE key = ?1"},
             Prepared{
                 &database->upsert,
                 "INSERT INTO defaults(key, kind, value) VALUES(?1, ?2, ?3) "
                 "ON CONFLICT(key) DO UPDATE SET kind = excluded.kind, value = excluded.value"},
             Prepared{&database->remove, "DELETE FROM defaults WHERE key = ?1"},
             Prepared{&database->selectAll, "SELECT key, kind, value FROM defaults ORDER BY key"},
         }) {
        if (sqlite3_prepare_v3(database->db, sql, -1, SQLITE_PREPARE_PERSISTENT, statement,
                               nullptr) != SQLITE_OK)
            return fail(sqliteError(database->db, "cannot prepare", path));
    }
    return database;
}

UserDefaults::UserDefaults(std::filesystem::path path, std::unique_ptr<Database> database)
    : path_(std::move(path)), database_(std::move(database)) {}

UserDefaults::UserDefaults(const std::string& suiteName) : path_(pathForSuite(suiteName)) {
    std::optional<Error> error;
    if (isValidSuiteName(suiteName)) {
        database_ = openDatabase(path_, &error);
    } else {
        error = Error::withDescription(kErrorDomain, EINVAL,
                                       "invalid suite name \"" + suiteName + "\"");
    }
    if (!database_) {
        // Both processes rely on the shared suite from their first moment; carrying on without it
        // would drop every setting on the floor, so this stops the process.
        std::string line = "[UserDefaults] fatal: missing app-group suite at " + path_.string() +
                           " (" + error->localizedDescription() + ")";
        log::error(line);
        std::fprintf(stderr, "%s\n", line.c_str());
        std::fflush(stderr);
        std::_Exit(EXIT_FAILURE);
    }
}

UserDefaults::~UserDefaults() = default;

std::shared_ptr<UserDefaults> UserDefaults::open(const std::string& suiteName,
                                                 std::optional<Error>* error) {
    if (!isValidSuiteName(suiteName)) {
        if (error)
            *error = Error::withDescription(kErrorDomain, EINVAL,
                                            "invalid suite name \"" + suiteName + "\"");
        return nullptr;
    }
    return openAt(pathForSuite(suiteName), error);
}

std::shared_ptr<UserDefaults> UserDefaults::openAt(const std::filesystem::path& path,
                                                   std::optional<Error>* error) {
    auto database = openDatabase(path, error);
    if (!database)
        return nullptr;
    return std::shared_ptr<UserDefaults>(new UserDefaults(path, std::move(database)));
}

std::filesystem::path UserDefaults::pathForSuite(const std::string& suiteName) {
    // The database's own open creates the directories and names this path when it cannot; only
    // a configuration that names no container at all stops the process here.
    auto container = AppGroup::chooseContainerDirectory();
    if (!container)
        container = AppGroup::containerDirectory();
    return *container / "Preferences" / (suiteName + ".sqlite");
}

std::shared_ptr<UserDefaults> UserDefaults::suite(const std::string& requested) {
    static std::mutex mutex;
    static std::map<std::filesystem::path, std::shared_ptr<UserDefaults>> suites;
    const std::string suiteName = requested.empty() ? AppGroup::identifier() : requested;
    auto path = pathForSuite(suiteName);
    std::lock_guard lock(mutex);
    auto& entry = suites[path];
    if (!entry)
        entry = std::make_shared<UserDefaults>(suiteName);
    return entry;
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    static std::mutex mutex;
    static std::map<std::filesystem::path, std::shared_ptr<UserDefaults>> stores;
    auto path = AppGroup::containerDirectory() / "Standard" / (programName() + ".sqlite");
    std::lock_guard lock(mutex);
    auto& entry = stores[path];
    if (!entry) {
        std::optional<Error> error;
        entry = openAt(path, &error);
        if (!entry) {
            std::string line = "[UserDefaults] fatal: cannot open the standard defaults at " +
                               path.string() + " (" + error->localizedDescription() + ")";
            log::error(line);
            std::fprintf(stderr, "%s\n", line.c_str());
            std::fflush(stderr);
            std::_Exit(EXIT_FAILURE);
        }
    }
    return entry;
}

std::optional<DefaultsValue> UserDefaults::objectForKey(const std::string& key) const {
    std::optional<Error> ignored;
    return objectForKey(key, ignored);
}

std::optional<DefaultsValue> UserDefaults::objectForKey(const std::string& key,
                                                        std::optional<Error>& error) const {
    std::lock_guard lock(mutex_);
    sqlite3_stmt* statement = database_->select;
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::optional<DefaultsValue> result;
    int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        std::string problem;
        result = defaults_codec::decode(statement, 0, problem);
        if (!result) {
            error = Error::withDescription(kErrorDomain, SQLITE_CORRUPT,
                                           "cannot read \"" + key + "\": " + problem);
            report(error->localizedDescription());
        }
    } else if (rc != SQLITE_DONE) {
        error = readFailure(rc, "cannot read \"" + key + "\"");
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return result;
}

Error UserDefaults::readFailure(int rc, const std::string& what) const {
    // The caller holds mutex_. A failed read may be a damaged file: SQLite's own check says
    // which, and the file is left exactly as it is, for recovery.
    std::string text = what + ": " + sqlite3_errmsg(database_->db);
    int primary = rc & 0xff;
    if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) {
        text = path_.string() + " is damaged (SQLITE_CORRUPT): " + what + "; " +
               integrityCheckLocked() + "; the file is kept for recovery";
    }
    report(text);
    return Error::withDescription(kErrorDomain, rc, text);
}

std::string UserDefaults::integrityCheckLocked() const {
    sqlite3_stmt* check = nullptr;
    if (sqlite3_prepare_v2(database_->db, "PRAGMA integrity_check(5)", -1, &check, nullptr) !=
        SQLITE_OK)
        return std::string("integrity check cannot run: ") + sqlite3_errmsg(database_->db);
    std::string found;
    int rc;
    while ((rc = sqlite3_step(check)) == SQLITE_ROW) {
        const auto* line = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
        std::string text(line ? line : "");
        // SQLite breaks its findings over lines; an error is reported in one.
        std::replace(text.begin(), text.end(), '\n', ' ');
        found += (found.empty() ? "" : "; ") + text;
    }
    if (rc != SQLITE_DONE)
        found += (found.empty() ? "" : "; ") + std::string(sqlite3_errmsg(database_->db));
    sqlite3_finalize(check);
    return "integrity check: " + (found.empty() ? std::string("no answer") : found);
}

std::optional<std::string> UserDefaults::integrityCheck() const {
    std::lock_guard lock(mutex_);
    std::string result = integrityCheckLocked();
    if (result == "integrity check: ok")
        return std::nullopt;
    return result;
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return std::nullopt;
    if (value->is_string())
        return value->get<std::string>();
    if (value->is_number() && !value->is_boolean())
        return Number::fromJson(*value)->description();
    return std::nullopt;
}

std::optional<Number> UserDefaults::numberForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return std::nullopt;
    return Number::fromJson(*value);
}

std::optional<DefaultsData> UserDefaults::dataForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value || !value->is_binary())
        return std::nullopt;
    const auto& bytes = value->get_binary();
    return DefaultsData(bytes.begin(), bytes.end());
}

std::optional<DefaultsValue> UserDefaults::arrayForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value || !value->is_array())
        return std::nullopt;
    return value;
}

std::optional<DefaultsValue> UserDefaults::dictionaryForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value || !value->is_object())
        return std::nullopt;
    return value;
}

namespace {

// Where the number of a text starts: after leading blanks and one sign, as the platform's text
// accessors read it.
std::size_t numberStart(const std::string& text, bool& negative) {
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    return i;
}

}  // namespace

long UserDefaults::integerValue(const DefaultsValue& value) {
    if (auto number = Number::fromJson(value))
        return static_cast<long>(number->intValue());
    if (!value.is_string())
        return 0;
    // The leading decimal digits; more than a long holds saturates.
    const auto& text = value.get_ref<const std::string&>();
    bool negative = false;
    std::size_t i = numberStart(text, negative);
    unsigned long magnitude = 0;
    constexpr unsigned long kLimit = static_cast<unsigned long>(LONG_MAX) + 1;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        magnitude = magnitude * 10 + static_cast<unsigned long>(text[i] - '0');
        if (magnitude >= kLimit) {
            magnitude = kLimit;
            break;
        }
    }
    if (negative)
        return magnitude >= kLimit ? LONG_MIN : -static_cast<long>(magnitude);
    return magnitude >= kLimit ? LONG_MAX : static_cast<long>(magnitude);
}

double UserDefaults::doubleValue(const DefaultsValue& value) {
    if (auto number = Number::fromJson(value))
        return number->doubleValue();
    if (!value.is_string())
        return 0;
    // Decimal notation only: strtod would also read hexadecimal, "inf" and "nan".
    const auto& text = value.get_ref<const std::string&>();
    bool negative = false;
    std::size_t i = numberStart(text, negative);
    if (i >= text.size() || !(std::isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.'))
        return 0;
    if (text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0)
        return 0;
    double number = std::strtod(text.c_str() + i, nullptr);
    if (!std::isfinite(number))
        return 0;
    return negative ? -number : number;
}

bool UserDefaults::boolValue(const DefaultsValue& value) {
    if (auto number = Number::fromJson(value))
        return number->boolValue();
    if (!value.is_string())
        return false;
    // "YES", "true", "1" and "  +007": the first character after blanks, a sign and leading zeros
    // decides, as the platform's boolValue of a text does.
    const auto& text = value.get_ref<const std::string&>();
    bool negative = false;
    std::size_t i = numberStart(text, negative);
    while (i < text.size() && text[i] == '0')
        ++i;
    if (i >= text.size())
        return false;
    char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

long UserDefaults::integerForKey(const std::string& key) const {
    auto value = objectForKey(key);
    return value ? integerValue(*value) : 0;
}

double UserDefaults::doubleForKey(const std::string& key) const {
    auto value = objectForKey(key);
    return value ? doubleValue(*value) : 0;
}

bool UserDefaults::boolForKey(const std::string& key) const {
    auto value = objectForKey(key);
    return value ? boolValue(*value) : false;
}

DefaultsValue UserDefaults::dictionaryRepresentation() const {
    std::optional<Error> ignored;
    auto all = readAll(ignored);
    return all ? std::move(*all) : DefaultsValue::object();
}

std::optional<DefaultsValue> UserDefaults::readAll(std::optional<Error>& error) const {
    DefaultsValue all = DefaultsValue::object();
    std::lock_guard lock(mutex_);
    sqlite3_stmt* statement = database_->selectAll;
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        std::string key(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                        static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
        std::string problem;
        if (auto value = defaults_codec::decode(statement, 1, problem)) {
            all[key] = std::move(*value);
        } else {
            report("cannot read \"" + key + "\": " + problem);
        }
    }
    std::optional<DefaultsValue> result = std::move(all);
    if (rc != SQLITE_DONE) {
        error = readFailure(rc, "cannot list the settings");
        result.reset();
    }
    sqlite3_reset(statement);
    return result;
}

bool UserDefaults::setObject(const DefaultsValue& value, const std::string& key) {
    if (value.is_null())
        return removeObjectForKey(key);
    std::lock_guard lock(mutex_);
    sqlite3_stmt* statement = database_->upsert;
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::vector<std::uint8_t> encoded;  // keeps a container's bytes alive until the step
    defaults_codec::bind(statement, 2, value, encoded);
    int rc = sqlite3_step(statement);
    bool ok = rc == SQLITE_DONE;
    if (!ok)
        report("cannot write \"" + key + "\": " + sqlite3_errmsg(database_->db));
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return ok;
}

bool UserDefaults::removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    sqlite3_stmt* statement = database_->remove;
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    int rc = sqlite3_step(statement);
    bool ok = rc == SQLITE_DONE;
    if (!ok)
        report("cannot remove \"" + key + "\": " + sqlite3_errmsg(database_->db));
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return ok;
}

bool UserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    // Commits are already visible to the other process; what is left is to put the log and the
    // database on disk.
    bool ok = flushFile(path_.string() + "-wal") && flushFile(path_);
    if (!ok)
        report("cannot synchronize " + path_.string() + ": " + std::strerror(errno));
    return ok;
}

void UserDefaults::setBusyTimeout(int milliseconds) {
    std::lock_guard lock(mutex_);
    sqlite3_busy_timeout(database_->db, milliseconds);
}

DefaultsValue UserDefaults::makeData(DefaultsData bytes) {
    return DefaultsValue::binary(std::move(bytes));
}

DefaultsValue UserDefaults::makeData(std::string_view bytes) {
    return DefaultsValue::binary(DefaultsData(bytes.begin(), bytes.end()));
}

}  // namespace lmkit
