#include "lmkit/settings/DeviceInfoProvider.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;

namespace {
void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
}
}  // namespace

TEST(DeviceInfoProvider, DeviceIDIsMadeOnceAndSharedThroughTheKeychain) {
    TempDir dir;
    auto keychain = std::make_shared<Keychain>(Keychain::atPath(dir.path() / "group.keychain"));
    DeviceInfoProvider app(keychain);
    int made = 0;
    app.setVendorIdentifierSource([&] {
        ++made;
        return "0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60";
    });
    log::Capture capture;
    EXPECT_EQ(app.deviceID(), "0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60");
    EXPECT_EQ(app.deviceID(), "0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60");
    EXPECT_EQ(made, 1);
    EXPECT_EQ(capture.count("Generate a new device ID: 0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60"), 1u);
    EXPECT_EQ(keychain->stringForKey("LumoBoosterUUIDKey"), "0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60");

    // The tunnel finds the app's identifier instead of making one.
    DeviceInfoProvider tunnel(std::make_shared<Keychain>(Keychain::atPath(keychain->path())));
    tunnel.setVendorIdentifierSource([] { return std::string("SHOULD-NOT-BE-USED"); });
    EXPECT_EQ(tunnel.deviceID(), "0D4B1F4E-7C2A-4B7E-9E55-1D2C3B4A5F60");

    // A keychain that cannot be written still gives an identifier, and says so.
    writeFile(dir.path() / "file", "x");
    DeviceInfoProvider broken(
        std::make_shared<Keychain>(Keychain::atPath(dir.path() / "file" / "k.keychain")));
    capture.clear();
    auto identifier = broken.deviceID();
    EXPECT_EQ(identifier.size(), 36u);
    EXPECT_EQ(identifier.find_first_not_of("0123456789ABCDEF-"), std::string::npos);
    EXPECT_TRUE(capture.contains(
        "Generate a new device ID, but failed to save into access group keychain"));
    EXPECT_EQ(broken.deviceID(), identifier);
}

TEST(DeviceInfoProvider, SystemVersionSNNeedsExactlyOneBuild) {
    TempDir dir;
    DeviceInfoProvider provider(std::make_shared<Keychain>(Keychain::atPath(dir.path() / "k")));
    struct Case {
        const char* version;
        std::optional<std::string> build;
    };
    for (const auto& [version, build] : {
             Case{"Version 17.0 (Build 21A329)", "21A329"},
             Case{"Version 1 (Build A1) (Build B2)", "B2"},  // one greedy match per line
             Case{"Version 1 (Build A1)\nVersion 2 (Build B2)", std::nullopt},
             Case{"Version 17.0", std::nullopt}, Case{"Version 17.0 (Build 21 A)", std::nullopt},
             Case{"Version 17.0 (Build 21_A^)", "21_A^"},  // the A-z range takes _ and ^
         }) {
        provider.setOperatingSystemVersionString(version);
        EXPECT_EQ(provider.systemVersionSN(), build) << version;
    }
    provider.setOperatingSystemVersionString(std::nullopt);
    EXPECT_EQ(
        provider.operatingSystemVersionString().rfind("Version " + provider.systemVersion(), 0),
        0u);
    EXPECT_TRUE(provider.systemVersionSN()) << provider.operatingSystemVersionString();
}

TEST(DeviceInfoProvider, ReadsMemoryBatteryAndScreenFromTheSystem) {
    TempDir dir;
    DeviceInfoProvider provider(std::make_shared<Keychain>(Keychain::atPath(dir.path() / "k")));
    auto root = dir.path() / "root";
    writeFile(root / "proc/meminfo",
              "MemTotal:       16384 kB\nMemFree:          100 kB\nMemAvailable:    2048 kB\n");
    writeFile(root / "sys/class/power_supply/AC/type", "Mains\n");
    writeFile(root / "sys/class/power_supply/AC/capacity", "100\n");
    writeFile(root / "sys/class/power_supply/BAT0/type", "Battery\n");
    writeFile(root / "sys/class/power_supply/BAT0/capacity", "57\n");
    writeFile(root / "sys/class/graphics/fb0/virtual_size", "1920,1080\n");
    provider.setSystemRootForTesting(root);

    EXPECT_EQ(provider.memorySize(), "16777216");
    EXPECT_EQ(provider.systemInfoWithTypeIdentifier(24), 16777216);
    EXPECT_FALSE(provider.systemInfoWithTypeIdentifier(25));
    EXPECT_EQ(provider.availableMemory(), "2097152");
    EXPECT_FLOAT_EQ(provider.batteryLevel(), 0.57f);
    EXPECT_EQ(provider.screenResolution(), "1920*1080");
    provider.setScreenSize(1170.4, 2532.6);
    EXPECT_EQ(provider.screenResolution(), "1170*2533");

    std::filesystem::remove_all(root);
    EXPECT_EQ(provider.availableMemory(), "Kernel Error");
    EXPECT_FLOAT_EQ(provider.batteryLevel(), -1.0f);

    provider.setHomeDirectory(dir.path());
    EXPECT_GT(std::stoull(provider.capacity()), 0u);
    EXPECT_LE(std::stoull(provider.availableCapacity()), std::stoull(provider.capacity()));
    provider.setHomeDirectory(dir.path() / "missing");
    EXPECT_EQ(provider.capacity(), "0");
}

TEST(DeviceInfoProvider, AllZeroAdvertisingIdentifierIsAbsent) {
    TempDir dir;
    DeviceInfoProvider provider(std::make_shared<Keychain>(Keychain::atPath(dir.path() / "k")));
    EXPECT_FALSE(provider.deviceIDFA());
    provider.setAdvertisingIdentifier("00000000-0000-0000-0000-000000000000");
    EXPECT_FALSE(provider.deviceIDFA());
    provider.setAdvertisingIdentifier("6D92078A-8246-4BA4-AE5B-76104861E7DC");
    EXPECT_EQ(provider.deviceIDFA(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
}
