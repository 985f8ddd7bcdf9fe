// test-labels: concurrency
#include "lmkit/platform/Wormhole.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/WormholeFileName.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;
using lmkit::testing::waitFor;

namespace {

Wormhole::Bytes bytesOf(const std::string& text) {
    return Wormhole::Bytes(text.begin(), text.end());
}
std::string textOf(const Wormhole::Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// Collects what a listener receives.
struct Received {
    std::mutex mutex;
    std::vector<std::string> messages;

    Wormhole::Listener listener() {
        return [this](const Wormhole::Bytes& message) {
            std::lock_guard lock(mutex);
            messages.push_back(textOf(message));
        };
    }
    std::vector<std::string> snapshot() {
        std::lock_guard lock(mutex);
        return messages;
    }
    std::string last() {
        std::lock_guard lock(mutex);
        return messages.empty() ? std::string() : messages.back();
    }
};

std::vector<std::string> filesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename().string());
    return names;
}

void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

}  // namespace

TEST(WormholeFileNameTest, NamesRoundTripAndStraysAreRefused) {
    wormhole_detail::MessageFileName file{"Cmd.with.dots", 42, 7, {}};
    auto name = wormhole_detail::formatMessageFileName(file);
    EXPECT_EQ(name, "Cmd.with.dots.00000000000000000042-7.archive");
    auto parsed = wormhole_detail::parseMessageFileName(name);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->identifier, "Cmd.with.dots");
    EXPECT_EQ(parsed->order(), (wormhole_detail::MessageOrder{42, 7}));

    for (const char* stray : {"Cmd.archive", ".Cmd.1-2.archive", "Cmd.1-2.archive.tmp",
                              "Cmd.x-2.archive", "Cmd.1-.archive", "Cmd.-1.archive", "Cmd.1-2",
                              ".1.2.tmp", "Cmd.123456789012345678901-1.archive", ".1-1.archive"})
        EXPECT_FALSE(wormhole_detail::parseMessageFileName(stray)) << stray;

    EXPECT_FALSE(Wormhole::isValidIdentifier(""));
    EXPECT_FALSE(Wormhole::isValidIdentifier(".hidden"));
    EXPECT_FALSE(Wormhole::isValidIdentifier("a/b"));
    EXPECT_FALSE(Wormhole::isValidIdentifier(std::string("a\0b", 3)));
    EXPECT_FALSE(Wormhole::isValidIdentifier(std::string(201, 'x')));
    EXPECT_TRUE(Wormhole::isValidIdentifier(std::string(200, 'x')));
}

TEST(WormholeTest, ListenersGetEachIdentifiersMessagesInOrderEndingWithTheNewest) {
    TempDir dir;
    Wormhole sender(dir.path(), "Wormhole");
    Wormhole receiver(dir.path(), "Wormhole");
    Received a, b;
    receiver.listenForMessageWithIdentifier("A", a.listener());
    receiver.listenForMessageWithIdentifier("B", b.listener());

    constexpr int kCount = 500;
    for (int i = 1; i <= kCount; ++i) {
        ASSERT_TRUE(sender.passMessageData("A", bytesOf(std::to_string(i))));
        ASSERT_TRUE(sender.passMessageData("B", bytesOf("b" + std::to_string(i))));
    }
    ASSERT_TRUE(waitFor([&] { return a.last() == std::to_string(kCount); }, 10));
    ASSERT_TRUE(waitFor([&] { return b.last() == "b" + std::to_string(kCount); }, 10));
    // Skipping is allowed when the listener falls behind, going back is not.
    auto seen = a.snapshot();
    for (std::size_t i = 1; i < seen.size(); ++i)
        EXPECT_LT(std::stoi(seen[i - 1]), std::stoi(seen[i]));

    // The writer keeps one file per identifier, and a late reader gets the newest message.
    auto names = filesIn(receiver.directory());
    EXPECT_EQ(names.size(), 2u);
    Wormhole late(dir.path(), "Wormhole");
    ASSERT_TRUE(late.messageWithIdentifier("A"));
    EXPECT_EQ(textOf(*late.messageWithIdentifier("A")), std::to_string(kCount));
    EXPECT_FALSE(late.messageWithIdentifier("C"));
}

TEST(WormholeTest, StrayFilesAreIgnoredAndOlderLeftoversCleaned) {
    TempDir dir;
    auto directory = dir.path() / "Wormhole";
    Wormhole receiver(dir.path(), "Wormhole");
    Received got;
    receiver.listenForMessageWithIdentifier("A", got.listener());

    // Names that are not messages, a directory and a dangling link under message names, a
    // file too large to be a message, and a message left behind by an older writer.
    writeFile(directory / "garbage", "\x01\x02");
    writeFile(directory / "A.archive", "not named as a message");
    writeFile(directory / ".A.00000000000000000001-1.archive", "hidden");
    std::filesystem::create_directory(directory / "A.00000000000000000002-1.archive");
    std::filesystem::create_symlink(directory / "nowhere",
                                    directory / "A.00000000000000000003-1.archive");
    {
        std::ofstream big(directory / "A.00000000000000000004-1.archive", std::ios::binary);
        big.seekp(17 * 1024 * 1024);
        big.put('x');
    }
    writeFile(directory / "A.00000000000000000005-1.archive", "old");

    // The file written in place under a message name counts once closed.
    ASSERT_TRUE(waitFor([&] { return got.last() == "old"; }));
    Wormhole sender(dir.path(), "Wormhole");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("new")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "new"; }));
    EXPECT_EQ(got.snapshot(), (std::vector<std::string>{"old", "new"}));

    ASSERT_TRUE(receiver.messageWithIdentifier("A"));
    EXPECT_EQ(textOf(*receiver.messageWithIdentifier("A")), "new");
    EXPECT_FALSE(std::filesystem::exists(directory / "A.00000000000000000005-1.archive"));
    EXPECT_TRUE(std::filesystem::exists(directory / "garbage"));

    EXPECT_FALSE(sender.passMessageData("../escape", bytesOf("x")));
    EXPECT_FALSE(sender.passMessageData("", bytesOf("x")));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "escape"));
}

TEST(WormholeTest, StoppingAndClearingEndDelivery) {
    TempDir dir;
    Wormhole channel(dir.path(), "Wormhole");
    Received got;
    channel.listenForMessageWithIdentifier("A", got.listener());
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("1")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "1"; }));

    // A replaced listener gets what follows; a stopped one gets nothing.
    Received replacement;
    channel.listenForMessageWithIdentifier("A", replacement.listener());
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("2")));
    ASSERT_TRUE(waitFor([&] { return replacement.last() == "2"; }));
    channel.stopListeningForMessageWithIdentifier("A");
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("3")));
    // The carrier's queue runs in order: once a later message of another identifier has been
    // delivered, "3" would have been too.
    Received other;
    channel.listenForMessageWithIdentifier("B", other.listener());
    ASSERT_TRUE(channel.passMessageData("B", bytesOf("x")));
    ASSERT_TRUE(waitFor([&] { return other.last() == "x"; }));
    EXPECT_EQ(got.snapshot(), std::vector<std::string>{"1"});
    EXPECT_EQ(replacement.snapshot(), std::vector<std::string>{"2"});

    channel.clearMessageContentsForIdentifier("A");
    EXPECT_FALSE(channel.messageWithIdentifier("A"));
    EXPECT_TRUE(channel.messageWithIdentifier("B"));
    channel.clearAllMessageContents();
    EXPECT_FALSE(channel.messageWithIdentifier("B"));
}

TEST(WormholeTest, ACarrierWithoutADirectoryFailsQuietly) {
    TempDir dir;
    writeFile(dir.path() / "file", "x");
    Wormhole channel(dir.path() / "file", "Wormhole");  // its parent is a file
    EXPECT_FALSE(channel.passMessageData("A", bytesOf("x")));
    EXPECT_FALSE(channel.messageWithIdentifier("A"));
}
