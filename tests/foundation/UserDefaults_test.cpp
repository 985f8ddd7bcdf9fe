// test-labels: system concurrency
#include "lmkit/foundation/UserDefaults.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "lmkit/foundation/Log.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;

namespace {

constexpr const char* kChildVariable = "LMKIT_DEFAULTS_TEST_CHILD";

// The child side of the multi-process tests. The test binary re-executes itself with
// kChildVariable set to "<mode>|<database>|<argument>"; this runs before the test framework
// starts and never returns in a child.
//   writer|PATH|PREFIX   writes PREFIX0 ... PREFIX4999, then exits 0
//   burst|PATH|FD        writes k0, k1, ... each followed by synchronize(), and reports every
//                        synchronised index on FD as one line, until it is killed
bool runChildIfAsked() {
    auto request = lmkit::testing::childRequest(kChildVariable);
    if (!request)
        return false;
    const auto& parts = *request;
    if (parts.size() != 3)
        std::_Exit(2);
    auto defaults = UserDefaults::openAt(parts[1]);
    if (!defaults)
        std::_Exit(3);
    if (parts[0] == "writer") {
        for (int i = 0; i < 5000; ++i)
            if (!defaults->setObject(i, parts[2] + std::to_string(i)))
                std::_Exit(4);
        std::_Exit(defaults->synchronize() ? 0 : 5);
    }
    if (parts[0] == "burst") {
        int fd = std::atoi(parts[2].c_str());
        for (int i = 0; i < 1'000'000; ++i) {
            if (!defaults->setObject(DefaultsValue{{"index", i}, {"pad", std::string(200, 'x')}},
                                     "k" + std::to_string(i)) ||
                !defaults->synchronize())
                std::_Exit(4);
            std::string line = std::to_string(i) + "\n";
            if (::write(fd, line.data(), line.size()) < 0)
                std::_Exit(0);
        }
        std::_Exit(0);
    }
    std::_Exit(2);
}
[[maybe_unused]] const bool kIsChild = runChildIfAsked();

pid_t spawnChild(const std::string& request) {
    return lmkit::testing::spawnSelf(kChildVariable, request);
}
using lmkit::testing::waitExit;

class UserDefaultsTest : public ::testing::Test {
  protected:
    std::shared_ptr<UserDefaults> openSuite(const std::string& name = "group.test") {
        std::optional<Error> error;
        auto defaults = UserDefaults::open(name, &error);
        EXPECT_TRUE(defaults) << (error ? error->localizedDescription() : "");
        return defaults;
    }

    lmkit::testing::TempContainer dir_;
};

}  // namespace

TEST_F(UserDefaultsTest, ValuesKeepTheirKindAcrossConnections) {
    auto writer = openSuite();
    auto reader = openSuite();
    ASSERT_TRUE(writer && reader);
    EXPECT_EQ(writer->path(), dir_.path() / "Preferences" / "group.test.sqlite");

    const DefaultsData bytes{0x00, 0xff, 0x10, 0x00};
    DefaultsValue dictionary = {{"port", 443},
                                {"ratio", 0.5},
                                {"name", "node"},
                                {"on", true},
                                {"list", {1, "two", 3.0}},
                                {"blob", UserDefaults::makeData(bytes)}};
    ASSERT_TRUE(writer->setObject(-7, "int"));
    ASSERT_TRUE(writer->setObject(std::numeric_limits<std::uint64_t>::max(), "big"));
    ASSERT_TRUE(writer->setObject(0.25, "double"));
    ASSERT_TRUE(writer->setObject(true, "bool"));
    ASSERT_TRUE(writer->setObject("text", "string"));
    ASSERT_TRUE(writer->setObject(UserDefaults::makeData(bytes), "data"));
    ASSERT_TRUE(writer->setObject(UserDefaults::makeData(DefaultsData{}), "empty"));
    ASSERT_TRUE(writer->setObject(dictionary, "dict"));
    ASSERT_TRUE(writer->setObject(DefaultsValue::array({1, 2}), "array"));

    // Written by one connection, read at once by another: nothing is cached.
    EXPECT_EQ(reader->numberForKey("int")->kind(), Number::Kind::Integer);
    EXPECT_EQ(reader->integerForKey("int"), -7);
    EXPECT_EQ(reader->numberForKey("big")->unsignedValue(),
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(reader->numberForKey("double")->kind(), Number::Kind::Floating);
    EXPECT_EQ(reader->doubleForKey("double"), 0.25);
    EXPECT_EQ(reader->numberForKey("bool")->kind(), Number::Kind::Boolean);
    EXPECT_TRUE(reader->boolForKey("bool"));
    EXPECT_EQ(reader->stringForKey("string"), "text");
    EXPECT_EQ(reader->dataForKey("data"), bytes);
    EXPECT_EQ(reader->dataForKey("empty"), DefaultsData{});
    EXPECT_EQ(reader->dictionaryForKey("dict"), dictionary);
    EXPECT_EQ(reader->arrayForKey("array"), DefaultsValue::array({1, 2}));
    EXPECT_FALSE(reader->arrayForKey("dict"));
    EXPECT_FALSE(reader->dataForKey("string"));
    EXPECT_FALSE(reader->objectForKey("missing"));
    EXPECT_EQ(reader->integerForKey("missing"), 0);
    EXPECT_FALSE(reader->boolForKey("missing"));

    auto all = reader->dictionaryRepresentation();
    EXPECT_EQ(all.size(), 9u);
    EXPECT_EQ(all.begin().key(), "array");  // ascending keys
    EXPECT_EQ(all["dict"], dictionary);

    // Overwrite with another kind, then remove (null removes too).
    ASSERT_TRUE(writer->setObject("42abc", "int"));
    EXPECT_EQ(reader->integerForKey("int"), 42);
    ASSERT_TRUE(writer->setObject("YES", "flag"));
    EXPECT_TRUE(reader->boolForKey("flag"));
    // Texts convert as the platform's text accessors read them.
    for (auto [text, integer, flag] : {std::tuple{"5", 5L, true},
                                       {" -12x", -12L, true},
                                       {"true", 0L, true},
                                       {"no", 0L, false},
                                       {"0x10", 0L, false},
                                       {"+007", 7L, true},
                                       {"0.5", 0L, false},
                                       {"nan", 0L, false}}) {
        EXPECT_EQ(UserDefaults::integerValue(text), integer) << text;
        EXPECT_EQ(UserDefaults::boolValue(text), flag) << text;
    }
    EXPECT_EQ(UserDefaults::doubleValue("2.5e1s"), 25.0);
    EXPECT_EQ(UserDefaults::doubleValue("inf"), 0.0);
    EXPECT_EQ(UserDefaults::integerValue("99999999999999999999"), LONG_MAX);
    ASSERT_TRUE(writer->removeObjectForKey("int"));
    ASSERT_TRUE(writer->setObject(nullptr, "string"));
    EXPECT_FALSE(reader->objectForKey("int"));
    EXPECT_FALSE(reader->objectForKey("string"));
    EXPECT_TRUE(writer->synchronize());
}

TEST_F(UserDefaultsTest, DamagedRowsReadAsNilAndLog) {
    auto defaults = openSuite();
    ASSERT_TRUE(defaults);
    ASSERT_TRUE(defaults->setObject("kept", "good"));
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(defaults->path().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "INSERT INTO defaults VALUES('container', 6, x'9f01');"
                           "INSERT INTO defaults VALUES('kind', 99, 1);",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);

    log::Capture capture;
    EXPECT_FALSE(defaults->objectForKey("container"));
    EXPECT_FALSE(defaults->objectForKey("kind"));
    EXPECT_EQ(capture.count("[UserDefaults] cannot read \"container\""), 1u);
    EXPECT_EQ(capture.count("[UserDefaults] cannot read \"kind\""), 1u);
    auto all = defaults->dictionaryRepresentation();
    EXPECT_EQ(all, DefaultsValue({{"good", "kept"}}));
}

TEST_F(UserDefaultsTest, ADamagedPageIsReportedWithSqlitesCheckAndTheFileKept) {
    auto path = dir_.path() / "damaged.sqlite";
    {
        auto defaults = UserDefaults::openAt(path);
        ASSERT_TRUE(defaults);
        for (int i = 0; i < 400; ++i)
            ASSERT_TRUE(defaults->setObject(std::string(200, 'v'), "key" + std::to_string(i)));
        EXPECT_FALSE(defaults->integrityCheck());
    }  // the last connection folds the write-ahead log into the file
    auto size = std::filesystem::file_size(path);
    ASSERT_GT(size, 8u * 4096u);
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(5 * 4096);
        std::string garbage(4096, '\xab');
        file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
    }
    auto defaults = UserDefaults::openAt(path);
    ASSERT_TRUE(defaults);
    log::Capture capture;
    std::optional<Error> error;
    EXPECT_FALSE(defaults->readAll(error));
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find("is damaged (SQLITE_CORRUPT)"), std::string::npos)
        << error->localizedDescription();
    EXPECT_NE(error->localizedDescription().find("integrity check: "), std::string::npos);
    EXPECT_EQ(error->localizedDescription().find('\n'), std::string::npos);  // one line
    EXPECT_EQ(capture.count("[UserDefaults] "), 1u);
    EXPECT_TRUE(defaults->integrityCheck());
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(std::filesystem::file_size(path), size);
}

TEST_F(UserDefaultsTest, BusyDatabaseWaitsThenFailsWithoutLosingTheOldValue) {
    auto defaults = openSuite();
    ASSERT_TRUE(defaults);
    ASSERT_TRUE(defaults->setObject(1, "key"));

    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(defaults->path().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

    // The other process keeps the database past our patience: the write fails and says so.
    defaults->setBusyTimeout(20);
    {
        log::Capture capture;
        EXPECT_FALSE(defaults->setObject(2, "key"));
        EXPECT_TRUE(capture.contains("[UserDefaults] cannot write \"key\": database is locked"));
    }
    EXPECT_EQ(defaults->integerForKey("key"), 1);  // readers are not blocked in WAL mode

    // Released within the time-out: the write waits and lands.
    defaults->setBusyTimeout(10'000);
    std::thread releaser([other] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    });
    EXPECT_TRUE(defaults->setObject(3, "key"));
    releaser.join();
    sqlite3_close(other);
    EXPECT_EQ(defaults->integerForKey("key"), 3);
}

TEST_F(UserDefaultsTest, UnopenableSuiteIsReportedWithItsPath) {
    // The app-group directory is a plain file, so nothing can be created inside it.
    auto blocked = dir_.path() / "not-a-directory";
    { std::ofstream(blocked) << "x"; }
    AppGroup::setContainerDirectoryForTesting(blocked);

    std::optional<Error> error;
    EXPECT_FALSE(UserDefaults::open("group.test", &error));
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find(blocked.string()), std::string::npos);
    EXPECT_FALSE(UserDefaults::open("../escape", &error));

    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(UserDefaults("group.test"), ::testing::ExitedWithCode(1),
                "missing app-group suite at .*not-a-directory/Preferences/group.test.sqlite");
}

TEST_F(UserDefaultsTest, ThreadsOnTwoConnectionsLoseNoWrite) {
    auto first = openSuite();
    auto second = openSuite();
    ASSERT_TRUE(first && second);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            auto& defaults = t % 2 ? *first : *second;
            for (int i = 0; i < 300; ++i) {
                defaults.setObject(i, "t" + std::to_string(t) + "." + std::to_string(i));
                defaults.setObject(t, "shared");
                (void)defaults.objectForKey("shared");
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(first->dictionaryRepresentation().size(), 4u * 300u + 1u);
}

TEST_F(UserDefaultsTest, TwoProcessesWritingAtOnceLoseNothing) {
    auto defaults = openSuite();
    ASSERT_TRUE(defaults);
    pid_t a = spawnChild("writer|" + defaults->path().string() + "|a");
    pid_t b = spawnChild("writer|" + defaults->path().string() + "|b");
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    // This process reads while they write: every read sees a whole value or none.
    int statusA = -1, statusB = -1;
    auto reap = [](pid_t pid, int& status) {
        int raw = 0;
        if (status == -1 && waitpid(pid, &raw, WNOHANG) == pid)
            status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    };
    while (statusA == -1 || statusB == -1) {
        auto value = defaults->objectForKey("b2500");
        if (value) {
            ASSERT_EQ(*value, 2500);
        }
        reap(a, statusA);
        reap(b, statusB);
    }
    EXPECT_EQ(statusA, 0);
    EXPECT_EQ(statusB, 0);
    auto all = defaults->dictionaryRepresentation();
    ASSERT_EQ(all.size(), 10'000u);
    for (int i = 0; i < 5000; i += 97) {
        EXPECT_EQ(all["a" + std::to_string(i)], i);
        EXPECT_EQ(all["b" + std::to_string(i)], i);
    }
}

TEST_F(UserDefaultsTest, WriterKilledMidBurstLeavesEverySynchronisedValue) {
    auto path = UserDefaults::pathForSuite("group.killed");
    std::mt19937 random(20261121);
    for (int round = 0; round < 50; ++round) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t pid = spawnChild("burst|" + path.string() + "|" + std::to_string(fds[1]));
        ASSERT_GT(pid, 0);
        close(fds[1]);
        // Kill it after a random number of synchronised writes (and so mid-write, most times).
        int target = std::uniform_int_distribution<int>(1, 40)(random);
        int lastSynchronised = -1;
        std::string pending;
        char buffer[256];
        while (lastSynchronised < target) {
            ssize_t n = read(fds[0], buffer, sizeof buffer);
            if (n <= 0)
                break;
            pending.append(buffer, static_cast<std::size_t>(n));
            for (auto end = pending.find('\n'); end != std::string::npos;
                 end = pending.find('\n')) {
                lastSynchronised = std::stoi(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
        }
        kill(pid, SIGKILL);
        waitExit(pid);
        close(fds[0]);
        ASSERT_GE(lastSynchronised, target) << "the writer stopped early in round " << round;

        std::optional<Error> error;
        auto defaults = UserDefaults::openAt(path, &error);
        ASSERT_TRUE(defaults) << error->localizedDescription();
        for (int i = 0; i <= lastSynchronised; ++i) {
            auto value = defaults->objectForKey("k" + std::to_string(i));
            ASSERT_TRUE(value) << "k" << i << " lost in round " << round;
            ASSERT_EQ((*value)["index"], i);
        }

        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        std::string verdict;
        sqlite3_exec(
            db, "PRAGMA integrity_check",
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) += values[0] ? values[0] : "";
                return 0;
            },
            &verdict, nullptr);
        sqlite3_close(db);
        ASSERT_EQ(verdict, "ok") << "round " << round;
    }
}
