// test-labels: concurrency
#include "lmkit/platform/Wormhole.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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
struct ReceivedMessages {
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

// The visible files: messages and strays, not the channel's own hidden ones.
std::vector<std::string> filesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().filename().string()[0] != '.')
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
    ReceivedMessages a, b;
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

TEST(WormholeTest, StrayFilesAreIgnoredAndWhatCannotBeReadIsMovedAside) {
    TempDir dir;
    auto directory = dir.path() / "Wormhole";
    Wormhole receiver(dir.path(), "Wormhole");
    std::mutex linesMutex;
    std::vector<std::string> lines;
    receiver.setDiagnosticHandler([&](const std::string& line) {
        std::lock_guard lock(linesMutex);
        lines.push_back(line);
    });
    ReceivedMessages got;
    receiver.listenForMessageWithIdentifier("A", got.listener());

    // Names that are not messages are left alone. Under message names: a directory, a dangling
    // link, a FIFO (which would block a reader that waits on open) and a file too large to be a
    // message; then a message left behind by an older writer.
    writeFile(directory / "garbage", "\x01\x02");
    writeFile(directory / "A.archive", "not named as a message");
    writeFile(directory / ".A.00000000000000000001-1.archive", "hidden");
    const std::vector<std::string> unreadable = {
        "A.00000000000000000002-1.archive", "A.00000000000000000003-1.archive",
        "A.00000000000000000004-1.archive", "A.00000000000000000005-1.archive"};
    std::filesystem::create_directory(directory / unreadable[0]);
    std::filesystem::create_symlink(directory / "nowhere", directory / unreadable[1]);
    ASSERT_EQ(::mkfifo((directory / unreadable[2]).c_str(), 0644), 0);
    {
        std::ofstream big(directory / unreadable[3], std::ios::binary);
        big.seekp(17 * 1024 * 1024);
        big.put('x');
    }
    writeFile(directory / "A.00000000000000000006-1.archive", "old");

    // The file written in place under a message name counts once closed.
    ASSERT_TRUE(waitFor([&] { return got.last() == "old"; }));
    Wormhole sender(dir.path(), "Wormhole");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("new")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "new"; }));
    EXPECT_EQ(got.snapshot(), (std::vector<std::string>{"old", "new"}));

    ASSERT_TRUE(receiver.messageWithIdentifier("A"));
    EXPECT_EQ(textOf(*receiver.messageWithIdentifier("A")), "new");
    EXPECT_FALSE(std::filesystem::exists(directory / "A.00000000000000000006-1.archive"));
    EXPECT_TRUE(std::filesystem::exists(directory / "garbage"));
    // Gone from their message names; what was not a regular file is kept aside, and said.
    for (const auto& name : unreadable)
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(directory / name)))
            << name;
    for (const auto& name : {unreadable[0], unreadable[1], unreadable[2]})
        EXPECT_TRUE(std::filesystem::exists(
            std::filesystem::symlink_status(directory / (".unreadable." + name))))
            << name;
    {
        std::lock_guard lock(linesMutex);
        EXPECT_GE(lines.size(), 3u);
        for (const auto& line : lines)
            EXPECT_EQ(line.rfind("moved aside the unreadable message file A.", 0), 0u) << line;
    }

    EXPECT_FALSE(sender.passMessageData("../escape", bytesOf("x")));
    EXPECT_FALSE(sender.passMessageData("", bytesOf("x")));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "escape"));
}

TEST(WormholeTest, AnUnreadableNewestFileHidesNothingAndDeletesNothing) {
    TempDir dir;
    auto directory = dir.path() / "Wormhole";
    Wormhole sender(dir.path(), "Wormhole");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("good")));
    auto good = filesIn(directory);
    // A FIFO stamped newer than the good message, found by a reader that was not listening.
    ASSERT_EQ(::mkfifo((directory / "A.09000000000000000000-1.archive").c_str(), 0644), 0);
    Wormhole reader(dir.path(), "Wormhole");
    auto message = reader.messageWithIdentifier("A");
    ASSERT_TRUE(message);
    EXPECT_EQ(textOf(*message), "good");
    for (const auto& name : good)
        EXPECT_TRUE(std::filesystem::exists(directory / name)) << name;
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(
        directory / ".unreadable.A.09000000000000000000-1.archive")));

    // A regular file that reads but is no message by the carrier's check does the same.
    writeFile(directory / "A.00000000000000000050-1.archive", "garbage");
    Wormhole checked(dir.path(), "Wormhole");
    checked.setMessageCheck(
        [](const Wormhole::Bytes& bytes) { return textOf(bytes) != "garbage"; });
    message = checked.messageWithIdentifier("A");
    ASSERT_TRUE(message);
    EXPECT_EQ(textOf(*message), "good");
    for (const auto& name : good)
        EXPECT_TRUE(std::filesystem::exists(directory / name)) << name;
    EXPECT_TRUE(
        std::filesystem::exists(directory / ".unreadable.A.00000000000000000050-1.archive"));
}

TEST(WormholeTest, AStrayAtTheEndOfTheSequenceSpaceStopsNoWriterAndHidesNoMessage) {
    TempDir dir;
    auto directory = dir.path() / "Wormhole";
    Wormhole sender(dir.path(), "Wormhole");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("before")));
    Wormhole receiver(dir.path(), "Wormhole");
    ReceivedMessages got;
    receiver.listenForMessageWithIdentifier("A", got.listener());
    const std::string stray = "A.09999999999999999999-1.archive";
    writeFile(directory / stray, "stray");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("after")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "after"; }));
    for (const auto& text : got.snapshot())
        EXPECT_NE(text, "stray");
    EXPECT_EQ(textOf(*Wormhole(dir.path(), "Wormhole").messageWithIdentifier("A")), "after");
    EXPECT_FALSE(std::filesystem::exists(directory / stray));
}

TEST(WormholeTest, AClockStepChangesNoOrder) {
    TempDir dir;
    auto directory = dir.path() / "Wormhole";
    Wormhole receiver(dir.path(), "Wormhole");
    ReceivedMessages got;
    receiver.listenForMessageWithIdentifier("A", got.listener());

    // A message named by a writer whose clock ran a year ahead (nanoseconds since 1970), with
    // the time stamp to match.
    auto yearAhead = std::chrono::system_clock::now() + std::chrono::hours(24 * 366);
    auto stamp = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(yearAhead.time_since_epoch()).count());
    auto future = wormhole_detail::formatMessageFileName({"A", stamp, 1, {}});
    writeFile(directory / future, "future");
    struct timespec times[2] = {{std::chrono::system_clock::to_time_t(yearAhead), 0},
                                {std::chrono::system_clock::to_time_t(yearAhead), 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / future).c_str(), times, 0), 0);
    ASSERT_TRUE(waitFor([&] { return got.last() == "future"; }));

    // Then a normal send, from a writer that has never written here.
    Wormhole sender(dir.path(), "Wormhole");
    ASSERT_TRUE(sender.passMessageData("A", bytesOf("now")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "now"; }));
    auto sent = filesIn(directory);

    // A reader started later gets the newest message, and nothing newer than it was deleted.
    Wormhole late(dir.path(), "Wormhole");
    auto current = late.messageWithIdentifier("A");
    ASSERT_TRUE(current);
    EXPECT_EQ(textOf(*current), "now");
    for (const auto& name : sent) {
        if (name != future) {
            EXPECT_TRUE(std::filesystem::exists(directory / name)) << name;
        }
    }
}

TEST(WormholeTest, StoppingAndClearingEndDelivery) {
    TempDir dir;
    Wormhole channel(dir.path(), "Wormhole");
    ReceivedMessages got;
    channel.listenForMessageWithIdentifier("A", got.listener());
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("1")));
    ASSERT_TRUE(waitFor([&] { return got.last() == "1"; }));

    // A replaced listener gets what follows; a stopped one gets nothing.
    ReceivedMessages replacement;
    channel.listenForMessageWithIdentifier("A", replacement.listener());
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("2")));
    ASSERT_TRUE(waitFor([&] { return replacement.last() == "2"; }));
    channel.stopListeningForMessageWithIdentifier("A");
    ASSERT_TRUE(channel.passMessageData("A", bytesOf("3")));
    // The carrier's queue runs in order: once a later message of another identifier has been
    // delivered, "3" would have been too.
    ReceivedMessages other;
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
