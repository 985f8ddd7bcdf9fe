#include "WatchHistory.hpp"

#include <sys/stat.h>

#include <ctime>

#include <sqlite3.h>

#include "lmkit/platform/AppGroup.hpp"

namespace lmkit::tool {

namespace {

constexpr const char* kSchema = R"(
PRAGMA journal_mode = WAL;
PRAGMA foreign_keys = ON;
CREATE TABLE IF NOT EXISTS rounds (
    id INTEGER PRIMARY KEY,
    at REAL NOT NULL,
    chosen TEXT NOT NULL,
    switched INTEGER NOT NULL,
    reason TEXT NOT NULL,
    late INTEGER NOT NULL,
    duplicates INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS rounds_at ON rounds (at);
CREATE TABLE IF NOT EXISTS samples (
    round INTEGER NOT NULL REFERENCES rounds (id) ON DELETE CASCADE,
    node TEXT NOT NULL,
    delay_ms REAL NOT NULL,
    min_ms REAL NOT NULL,
    max_ms REAL NOT NULL,
    loss REAL NOT NULL,
    deviation_ms REAL NOT NULL,
    score REAL NOT NULL);
CREATE INDEX IF NOT EXISTS samples_round ON samples (round);
)";

// A statement that finalizes itself.
struct Statement {
    sqlite3_stmt* statement = nullptr;
    Statement(sqlite3* db, const char* sql) {
        sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    }
    ~Statement() { sqlite3_finalize(statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return statement != nullptr; }
};

std::string text(sqlite3_stmt* statement, int column) {
    const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    return value ? value : "";
}

// SQLite's quick check of an open database: empty when it is sound, else what it found.
std::string quickCheck(sqlite3* db) {
    Statement check(db, "PRAGMA quick_check(1)");
    if (!check)
        return sqlite3_errmsg(db);
    if (sqlite3_step(check.statement) != SQLITE_ROW)
        return sqlite3_errmsg(db);
    std::string result = text(check.statement, 0);
    return result == "ok" ? std::string() : result;
}

sqlite3* openDatabase(const std::filesystem::path& path, int flags, std::string& problem) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        problem = db ? sqlite3_errmsg(db) : "cannot open";
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 2000);
    problem = quickCheck(db);
    if (problem.empty() && sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK)
        problem = sqlite3_errmsg(db);
    if (!problem.empty()) {
        sqlite3_close(db);
        return nullptr;
    }
    return db;
}

}  // namespace

std::filesystem::path defaultWatchHistoryPath() {
    return AppGroup::containerDirectory() / "Watch" / "history.sqlite";
}

std::unique_ptr<WatchHistory> WatchHistory::open(const std::filesystem::path& path,
                                                 std::string& error, double keepSeconds,
                                                 std::int64_t maxRounds) {
    Error made;
    if (path.has_parent_path() && !AppGroup::makePrivateDirectory(path.parent_path(), &made)) {
        error = made.localizedDescription();
        return nullptr;
    }
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    std::string problem;
    sqlite3* db = openDatabase(path, flags, problem);
    std::optional<std::filesystem::path> aside;
    std::string damage;
    if (!db) {
        // Damaged or not a database at all: keep it for whoever wants to look, start anew.
        std::error_code ec;
        if (!std::filesystem::exists(path, ec)) {
            error = "cannot open the history " + path.string() + ": " + problem;
            return nullptr;
        }
        char stamp[32];
        std::time_t now = std::time(nullptr);
        std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", std::localtime(&now));
        aside = path.string() + ".damaged-" + stamp;
        std::filesystem::rename(path, *aside, ec);
        for (const char* suffix : {"-wal", "-shm"})
            std::filesystem::remove(path.string() + suffix, ec);
        if (ec) {
            error = "the history " + path.string() + " is damaged (" + problem +
                    ") and cannot be set aside: " + ec.message();
            return nullptr;
        }
        damage = problem;
        db = openDatabase(path, flags, problem);
        if (!db) {
            error = "cannot open the history " + path.string() + ": " + problem;
            return nullptr;
        }
    }
    ::chmod(path.c_str(), AppGroup::kFileMode);
    std::unique_ptr<WatchHistory> history(new WatchHistory(db));
    history->keepSeconds_ = keepSeconds;
    history->maxRounds_ = maxRounds;
    history->setAside_ = aside;
    history->damage_ = damage;
    return history;
}

std::unique_ptr<WatchHistory> WatchHistory::openToRead(const std::filesystem::path& path,
                                                       std::string& error) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        error = "no history at " + path.string();
        return nullptr;
    }
    std::string problem;
    sqlite3* db = openDatabase(path, SQLITE_OPEN_READWRITE, problem);
    if (!db) {
        error = "cannot read the history " + path.string() + ": " + problem;
        return nullptr;
    }
    return std::unique_ptr<WatchHistory>(new WatchHistory(db));
}

WatchHistory::~WatchHistory() {
    sqlite3_close(db_);
}

bool WatchHistory::append(const WatchRound& round, std::string& error) {
    auto fail = [&] {
        error = sqlite3_errmsg(db_);
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    };
    if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return fail();
    Statement insertRound(db_,
                          "INSERT INTO rounds (at, chosen, switched, reason, late, duplicates) "
                          "VALUES (?, ?, ?, ?, ?, ?)");
    if (!insertRound)
        return fail();
    sqlite3_bind_double(insertRound.statement, 1, round.at);
    sqlite3_bind_text(insertRound.statement, 2, round.chosen.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(insertRound.statement, 3, round.switched ? 1 : 0);
    sqlite3_bind_text(insertRound.statement, 4, round.reason.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(insertRound.statement, 5, round.late);
    sqlite3_bind_int64(insertRound.statement, 6, round.duplicates);
    if (sqlite3_step(insertRound.statement) != SQLITE_DONE)
        return fail();
    const auto id = sqlite3_last_insert_rowid(db_);
    Statement insertSample(db_,
                           "INSERT INTO samples (round, node, delay_ms, min_ms, max_ms, loss, "
                           "deviation_ms, score) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    if (!insertSample)
        return fail();
    for (const auto& sample : round.samples) {
        sqlite3_reset(insertSample.statement);
        sqlite3_bind_int64(insertSample.statement, 1, id);
        sqlite3_bind_text(insertSample.statement, 2, sample.node.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(insertSample.statement, 3, sample.delayMs);
        sqlite3_bind_double(insertSample.statement, 4, sample.minMs);
        sqlite3_bind_double(insertSample.statement, 5, sample.maxMs);
        sqlite3_bind_double(insertSample.statement, 6, sample.loss);
        sqlite3_bind_double(insertSample.statement, 7, sample.deviationMs);
        sqlite3_bind_double(insertSample.statement, 8, sample.score);
        if (sqlite3_step(insertSample.statement) != SQLITE_DONE)
            return fail();
    }
    prune(round.at);
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
        return fail();
    return true;
}

void WatchHistory::prune(double now) {
    Statement old(db_, "DELETE FROM rounds WHERE at < ?");
    sqlite3_bind_double(old.statement, 1, now - keepSeconds_);
    sqlite3_step(old.statement);
    Statement excess(db_, "DELETE FROM rounds WHERE id <= (SELECT MAX(id) FROM rounds) - ?");
    sqlite3_bind_int64(excess.statement, 1, maxRounds_);
    sqlite3_step(excess.statement);
}

std::vector<WatchRound> WatchHistory::rounds(double since) const {
    std::vector<WatchRound> result;
    Statement select(db_,
                     "SELECT r.id, r.at, r.chosen, r.switched, r.reason, r.late, r.duplicates, "
                     "s.node, s.delay_ms, s.min_ms, s.max_ms, s.loss, s.deviation_ms, s.score "
                     "FROM rounds r LEFT JOIN samples s ON s.round = r.id WHERE r.at >= ? "
                     "ORDER BY r.id, s.rowid");
    if (!select)
        return result;
    sqlite3_bind_double(select.statement, 1, since);
    std::int64_t current = -1;
    while (sqlite3_step(select.statement) == SQLITE_ROW) {
        auto id = sqlite3_column_int64(select.statement, 0);
        if (id != current) {
            current = id;
            WatchRound round;
            round.at = sqlite3_column_double(select.statement, 1);
            round.chosen = text(select.statement, 2);
            round.switched = sqlite3_column_int(select.statement, 3) != 0;
            round.reason = text(select.statement, 4);
            round.late = sqlite3_column_int64(select.statement, 5);
            round.duplicates = sqlite3_column_int64(select.statement, 6);
            result.push_back(std::move(round));
        }
        if (sqlite3_column_type(select.statement, 7) == SQLITE_NULL)
            continue;
        NodeSample sample;
        sample.node = text(select.statement, 7);
        sample.delayMs = sqlite3_column_double(select.statement, 8);
        sample.minMs = sqlite3_column_double(select.statement, 9);
        sample.maxMs = sqlite3_column_double(select.statement, 10);
        sample.loss = sqlite3_column_double(select.statement, 11);
        sample.deviationMs = sqlite3_column_double(select.statement, 12);
        sample.score = sqlite3_column_double(select.statement, 13);
        result.back().samples.push_back(std::move(sample));
    }
    return result;
}

std::optional<std::string> WatchHistory::lastChosen() const {
    Statement select(db_, "SELECT chosen FROM rounds ORDER BY id DESC LIMIT 1");
    if (!select || sqlite3_step(select.statement) != SQLITE_ROW)
        return std::nullopt;
    auto chosen = text(select.statement, 0);
    if (chosen.empty())
        return std::nullopt;
    return chosen;
}

std::int64_t WatchHistory::roundCount() const {
    Statement count(db_, "SELECT COUNT(*) FROM rounds");
    if (!count || sqlite3_step(count.statement) != SQLITE_ROW)
        return 0;
    return sqlite3_column_int64(count.statement, 0);
}

}  // namespace lmkit::tool
