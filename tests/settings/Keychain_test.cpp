// test-labels: concurrency
#include "lmkit/settings/Keychain.hpp"

#include <sys/stat.h>

#include <fstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/AppGroupTest.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;

TEST(Keychain, ItemsPersistOwnerOnlyAndAreSharedBetweenInstances) {
    lmkit::testing::TempContainer dir;
    Keychain app("group.test");
    Keychain tunnel("group.test");
    EXPECT_EQ(app.path(), dir.path() / "Keychain" / "group.test.keychain");
    EXPECT_FALSE(app.stringForKey("LumoBoosterUUIDKey"));

    ASSERT_TRUE(app.setString("ABC", "LumoBoosterUUIDKey"));
    ASSERT_TRUE(app.setString("other", "second"));
    EXPECT_EQ(tunnel.stringForKey("LumoBoosterUUIDKey"), "ABC");
    struct stat info {};
    ASSERT_EQ(::stat(app.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    ASSERT_TRUE(tunnel.removeItem("LumoBoosterUUIDKey"));
    EXPECT_FALSE(app.stringForKey("LumoBoosterUUIDKey"));
    EXPECT_EQ(app.stringForKey("second"), "other");
}

TEST(Keychain, ConcurrentWritersKeepEveryItem) {
    TempDir dir;
    auto path = dir.path() / "shared.keychain";
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&, t] {
            auto keychain = Keychain::atPath(path);  // its own descriptors, as another process
            for (int i = 0; i < 25; ++i)
                EXPECT_TRUE(keychain.setString(std::to_string(i),
                                               std::to_string(t) + "." + std::to_string(i)));
        });
    for (auto& writer : writers)
        writer.join();
    auto keychain = Keychain::atPath(path);
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 25; ++i)
            EXPECT_EQ(keychain.stringForKey(std::to_string(t) + "." + std::to_string(i)),
                      std::to_string(i));
}

TEST(Keychain, FailuresAreReportedAndLoseNothing) {
    TempDir dir;
    auto keychain = Keychain::atPath(dir.path() / "items.keychain");
    ASSERT_TRUE(keychain.setString("kept", "key"));
    std::optional<Error> error;
    EXPECT_FALSE(keychain.setString("\xff", "key", &error));  // not text
    ASSERT_TRUE(error);
    EXPECT_EQ(keychain.stringForKey("key"), "kept");

    { std::ofstream(dir.path() / "damaged.keychain") << "{\"half"; }
    auto damaged = Keychain::atPath(dir.path() / "damaged.keychain");
    error.reset();
    EXPECT_FALSE(damaged.stringForKey("key", &error));
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find("damaged keychain file"), std::string::npos);
    EXPECT_FALSE(damaged.setString("x", "key"));  // a damaged file is not overwritten blindly

    { std::ofstream(dir.path() / "file") << "x"; }
    auto blocked = Keychain::atPath(dir.path() / "file" / "items.keychain");
    error.reset();
    EXPECT_FALSE(blocked.setString("x", "key", &error));
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find("cannot create"), std::string::npos);
}
