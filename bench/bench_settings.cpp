// Settings store throughput against raw SQLite in the same run.
//
// Prints, for a small value, the rate of AppDefault writes (each one an upsert plus
// synchronize(), queued on the shared write queue) and reads, of plain UserDefaults writes and
// reads, and of synchronize(), each next to raw SQLite doing the same work with the same pragmas
// (WAL, synchronous=NORMAL, prepared statements, the same flush). Targets: AppDefault writes at
// least 0.7x and reads at least 0.5x the raw rate.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include <sqlite3.h>

#include "BenchTable.hpp"
#include "lmkit/foundation/AppDefault.hpp"
#include "lmkit/foundation/DefaultsWriteQueue.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/platform/AppGroup.hpp"

using namespace lmkit;

namespace {

// The machine is shared and disk flushes are noisy, so the two sides run in alternating rounds
// and each side's rate is its operations over its own summed time.
struct Rates {
    double ours = 0;
    double raw = 0;
};
Rates compare(int operations, const std::function<void(int)>& ours,
              const std::function<void(int)>& raw) {
    constexpr int kRounds = 10;
    int perRound = std::max(1, operations / kRounds);
    std::chrono::duration<double> oursTime{0}, rawTime{0};
    auto timed = [](const std::function<void(int)>& work, int n) {
        auto start = std::chrono::steady_clock::now();
        work(n);
        return std::chrono::steady_clock::now() - start;
    };
    // Each side goes first in half of the rounds: a flush pays for whatever the disk still holds
    // from the step before it, and that must not always fall on the same side.
    for (int round = 0; round < kRounds; ++round) {
        if (round % 2 == 0) {
            oursTime += timed(ours, perRound);
            rawTime += timed(raw, perRound);
        } else {
            rawTime += timed(raw, perRound);
            oursTime += timed(ours, perRound);
        }
    }
    return {perRound * kRounds / oursTime.count(), perRound * kRounds / rawTime.count()};
}

void flush(const std::string& path) {
    for (const auto& file : {path + "-wal", path}) {
        int fd = ::open(file.c_str(), O_RDONLY);
        if (fd >= 0) {
            ::fsync(fd);
            ::close(fd);
        }
    }
}

struct Raw {
    sqlite3* db = nullptr;
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* select = nullptr;
    std::string path;

    explicit Raw(std::string file) : path(std::move(file)) {
        if (sqlite3_open(path.c_str(), &db) != SQLITE_OK)
            std::abort();
        sqlite3_busy_timeout(db, 10'000);
        sqlite3_exec(db,
                     "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                     "CREATE TABLE IF NOT EXISTS kv(key TEXT PRIMARY KEY NOT NULL, kind INTEGER "
                     "NOT NULL, value) WITHOUT ROWID;",
                     nullptr, nullptr, nullptr);
        sqlite3_prepare_v3(db,
                           "INSERT INTO kv(key, kind, value) VALUES(?1, ?2, ?3) ON CONFLICT(key) "
                           "DO UPDATE SET kind = excluded.kind, value = excluded.value",
                           -1, SQLITE_PREPARE_PERSISTENT, &upsert, nullptr);
        sqlite3_prepare_v3(db, "SELECT kind, value FROM kv WHERE key = ?1", -1,
                           SQLITE_PREPARE_PERSISTENT, &select, nullptr);
    }
    ~Raw() {
        sqlite3_finalize(upsert);
        sqlite3_finalize(select);
        sqlite3_close(db);
    }
    void write(const std::string& key, const std::string& blob) {
        sqlite3_bind_text(upsert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_int(upsert, 2, 5);
        sqlite3_bind_blob(upsert, 3, blob.data(), static_cast<int>(blob.size()), SQLITE_STATIC);
        if (sqlite3_step(upsert) != SQLITE_DONE)
            std::abort();
        sqlite3_reset(upsert);
    }
    void writeInteger(const std::string& key, long value) {
        sqlite3_bind_text(upsert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_int(upsert, 2, 0);
        sqlite3_bind_int64(upsert, 3, value);
        if (sqlite3_step(upsert) != SQLITE_DONE)
            std::abort();
        sqlite3_reset(upsert);
    }
    std::size_t read(const std::string& key) {
        sqlite3_bind_text(select, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        std::size_t size = 0;
        if (sqlite3_step(select) == SQLITE_ROW)
            size = static_cast<std::size_t>(sqlite3_column_bytes(select, 1));
        sqlite3_reset(select);
        return size;
    }
};

void line(const char* what, double ours, double raw, double target) {
    std::printf("%-34s %10.0f/s  raw %10.0f/s  ratio %.2fx%s\n", what, ours, raw, ours / raw,
                target > 0 ? (ours / raw >= target ? "  (target met)" : "  (BELOW TARGET)") : "");
    if (target > 0) {
        char goal[32], measured[64];
        std::snprintf(goal, sizeof goal, ">= %.1fx", target);
        std::snprintf(measured, sizeof measured, "%.2fx (raw SQLite %.0f/s)", ours / raw, raw);
        bench::result(std::string("settings: ") + what + " against raw SQLite", goal, measured,
                      ours / raw >= target);
    }
}

}  // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? std::atoi(argv[1]) : 5000;
    auto dir = std::filesystem::temp_directory_path() /
               ("lmkit-bench-settings-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    AppGroup::setContainerDirectoryForTesting(dir);
    auto defaults = UserDefaults::suite();
    Raw raw((dir / "raw.sqlite").string());
    const std::string key = "LMBoostTimesWithoutCheckListKey";
    const std::string blob = R"({"wrapped":5})";
    std::size_t sink = 0;

    AppDefault<long> setting(key);
    // Warm both paths (statement caches, WAL creation) before timing.
    setting.set(1);
    defaultsWriteQueue().sync([] {});
    raw.write(key, blob);

    auto writes = compare(
        count,
        [&](int n) {
            for (int i = 0; i < n; ++i)
                setting.set(i);
            defaultsWriteQueue().sync([] {});
        },
        [&](int n) {
            // Values change as the settings' do: SQLite skips rewriting an identical row.
            for (int i = 0; i < n; ++i) {
                raw.write(key, R"({"wrapped":)" + std::to_string(i) + "}");
                flush(raw.path);
            }
        });
    auto reads = compare(
        count * 20,
        [&](int n) {
            for (int i = 0; i < n; ++i)
                sink += setting.get().value_or(0);
        },
        [&](int n) {
            for (int i = 0; i < n; ++i)
                sink += raw.read(key);
        });
    auto plainWrites = compare(
        count * 10,
        [&](int n) {
            for (int i = 0; i < n; ++i)
                defaults->setObject(i, key);
        },
        [&](int n) {
            // The same changing integers as ours: an upsert of an identical row leaves the page
            // clean, so the commit writes no WAL frame at all and is several times cheaper.
            for (int i = 0; i < n; ++i)
                raw.writeInteger(key, i);
        });
    auto plainReads = compare(
        count * 20,
        [&](int n) {
            for (int i = 0; i < n; ++i)
                sink += defaults->integerForKey(key);
        },
        [&](int n) {
            for (int i = 0; i < n; ++i)
                sink += raw.read(key);
        });
    auto syncs = compare(
        count,
        [&](int n) {
            for (int i = 0; i < n; ++i)
                defaults->synchronize();
        },
        [&](int n) {
            for (int i = 0; i < n; ++i)
                flush(raw.path);
        });

    std::printf("settings store, %d operations per write run (%s)\n", count, dir.c_str());
    line("AppDefault write + synchronize", writes.ours, writes.raw, 0.7);
    line("AppDefault read", reads.ours, reads.raw, 0.5);
    line("UserDefaults setObject", plainWrites.ours, plainWrites.raw, 0);
    line("UserDefaults integerForKey", plainReads.ours, plainReads.raw, 0);
    line("UserDefaults synchronize", syncs.ours, syncs.raw, 0);
    std::filesystem::remove_all(dir);
    return sink == 42 ? 1 : 0;  // keeps the reads from being optimised away
}
