#include "lmkit/foundation/UserDefaults.hpp"

#include <fcntl.h>
#include <unistd.h>

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
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec)
        return fail(Error::withDescription(
            kErrorDomain, ec.value(),
            "cannot create the directory of " + path.string() + ": " + ec.message()));

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
    return AppGroup::containerDirectory() / "Preferences" / (suiteName + ".sqlite");
}

std::shared_ptr<UserDefaults> UserDefaults::suite(const std::string& suiteName) {
    static std::mutex mutex;
    static std::map<std::filesystem::path, std::shared_ptr<UserDefaults>> suites;
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
    std::lock_guard lock(mutex_);
    sqlite3_stmt* statement = database_->select;
    sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::optional<DefaultsValue> result;
    int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        std::string problem;
        result = defaults_codec::decode(statement, 0, problem);
        if (!result)
            report("cannot read \"" + key + "\": " + problem);
    } else if (rc != SQLITE_DONE) {
        report("cannot read \"" + key + "\": " + sqlite3_errmsg(database_->db));
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
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

long UserDefaults::integerForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return 0;
    if (auto number = Number::fromJson(*value))
        return static_cast<long>(number->intValue());
    if (value->is_string())
        return static_cast<long>(defaults_codec::leadingNumber(*value));
    return 0;
}

double UserDefaults::doubleForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return 0;
    if (auto number = Number::fromJson(*value))
        return number->doubleValue();
    if (value->is_string())
        return defaults_codec::leadingNumber(*value);
    return 0;
}

bool UserDefaults::boolForKey(const std::string& key) const {
    auto value = objectForKey(key);
    if (!value)
        return false;
    if (auto number = Number::fromJson(*value))
        return number->boolValue();
    if (value->is_string()) {
        const auto& text = value->get_ref<const std::string&>();
        if (text == "YES" || text == "yes" || text == "true" || text == "TRUE")
            return true;
        return defaults_codec::leadingNumber(*value) != 0;
    }
    return false;
}

DefaultsValue UserDefaults::dictionaryRepresentation() const {
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
    if (rc != SQLITE_DONE)
        report(std::string("cannot list: ") + sqlite3_errmsg(database_->db));
    sqlite3_reset(statement);
    return all;
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
