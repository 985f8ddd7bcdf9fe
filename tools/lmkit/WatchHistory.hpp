#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace lmkit::tool {

/// One node's figures in one round.
struct NodeSample {
    std::string node;  // "host:port"
    double delayMs = 0;
    double minMs = 0;
    double maxMs = 0;
    double loss = 0;  // 0..1
    double deviationMs = 0;
    double score = 0;
};

/// One round of a watch: when, what it chose and why, and every node's figures.
struct WatchRound {
    double at = 0;  // seconds since 1970
    std::string chosen;
    bool switched = false;
    std::string reason;  // why the choice changed (empty when it did not)
    long late = 0;       // replies of the round after its receive time-out
    long duplicates = 0;
    std::vector<NodeSample> samples;
};

/// The history of a watch in SQLite: rounds and their per-node samples, kept for `keepSeconds`
/// and at most `maxRounds` rounds, oldest going first. A restart appends to the same history.
///
/// A file that SQLite finds damaged is never emptied: it is renamed aside (its name plus
/// ".damaged-<time>") and a new history starts; setAside() tells where it went.
class WatchHistory {
  public:
    static constexpr double kDefaultKeepSeconds = 7 * 24 * 3600.0;
    /// A bound on the file's size whatever the retention: at ten nodes a round, about 20 MB.
    static constexpr std::int64_t kDefaultMaxRounds = 100000;

    /// Opens (or creates) the history at `path`; nullptr and `error` when it cannot be used.
    static std::unique_ptr<WatchHistory> open(const std::filesystem::path& path, std::string& error,
                                              double keepSeconds = kDefaultKeepSeconds,
                                              std::int64_t maxRounds = kDefaultMaxRounds);
    /// Opens an existing history to read; nullptr and `error` when it is missing or damaged.
    static std::unique_ptr<WatchHistory> openToRead(const std::filesystem::path& path,
                                                    std::string& error);
    ~WatchHistory();
    WatchHistory(const WatchHistory&) = delete;
    WatchHistory& operator=(const WatchHistory&) = delete;

    /// Where a damaged history was moved when this one was opened (nothing when it was sound),
    /// and what SQLite found wrong with it.
    const std::optional<std::filesystem::path>& setAside() const { return setAside_; }
    const std::string& damage() const { return damage_; }

    /// Stores a round (one transaction) and drops what the retention no longer keeps.
    bool append(const WatchRound& round, std::string& error);
    /// The rounds since `since` (seconds since 1970), oldest first.
    std::vector<WatchRound> rounds(double since = 0) const;
    /// The last round's choice, to continue after a restart.
    std::optional<std::string> lastChosen() const;
    std::int64_t roundCount() const;

  private:
    explicit WatchHistory(sqlite3* db) : db_(db) {}
    void prune(double now);

    sqlite3* db_;
    double keepSeconds_ = kDefaultKeepSeconds;
    std::int64_t maxRounds_ = kDefaultMaxRounds;
    std::optional<std::filesystem::path> setAside_;
    std::string damage_;
};

/// The default place of the history: "Watch/history.sqlite" in the app group's container.
std::filesystem::path defaultWatchHistoryPath();

}  // namespace lmkit::tool
