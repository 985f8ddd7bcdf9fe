#include "lmkit/settings/AppBuildEnv.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;
using Env = AppBuildEnv::Env;

namespace {

// A provisioning profile as the signing tools write it: the property list in plain text inside
// binary signature bytes (some of them not valid UTF-8).
std::string profile(const std::string& name) {
    std::string bytes("\x30\x82\x0b\x7f\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02\xa0", 16);
    bytes +=
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n"
        "\t<key>AppIDName</key>\n\t<string>lmkit</string>\n"
        "\t<key>Name</key>\n\t<string>" +
        name +
        "</string>\n"
        "\t<key>TeamIdentifier</key>\n\t<array><string>LMKIT00000</string></array>\n"
        "</dict>\n</plist>";
    bytes += std::string("\xa0\x82\x08\x3e\xff\xfe", 6);
    return bytes;
}

void write(const std::filesystem::path& path, const std::string& bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

TEST(AppBuildEnv, DecidesFromTheProfileNameThenTheReceipt) {
    TempDir bundle;
    const auto dir = bundle.path();
    {
        log::Capture capture;  // no profile, no receipt
        EXPECT_EQ(AppBuildEnv::decide(dir), Env::unknown);
        EXPECT_EQ(capture.count("[AppBuildEnv] no embedded provisioning profile"), 1u);
    }
    EXPECT_EQ(AppBuildEnv::appStoreReceiptURL(dir), dir / "StoreKit" / "receipt");

    write(dir / "StoreKit" / "receipt", "receipt bytes");
    EXPECT_EQ(AppBuildEnv::decide(dir), Env::appstore);
    write(dir / "StoreKit" / "sandboxReceipt", "sandbox bytes");
    EXPECT_EQ(AppBuildEnv::decide(dir), Env::testflight);

    // An ad-hoc profile wins over any receipt, in any letter case; another name does not.
    write(dir / "embedded.mobileprovision", profile("LMKit AdHoc Distribution"));
    EXPECT_EQ(AppBuildEnv::profileName(dir), "LMKit AdHoc Distribution");
    EXPECT_EQ(AppBuildEnv::decide(dir), Env::adhoc);
    write(dir / "embedded.mobileprovision", profile("lmkit_ADHOC"));
    EXPECT_EQ(AppBuildEnv::decide(dir), Env::adhoc);
    write(dir / "embedded.mobileprovision", profile("LMKit Development"));
    EXPECT_EQ(AppBuildEnv::decide(dir), Env::testflight);
}

TEST(AppBuildEnv, DamagedProfilesGiveNoNameAndOneErrorLine) {
    TempDir bundle;
    const auto dir = bundle.path();
    const std::vector<std::string> damaged{
        "no property list here",
        "<plist version=\"1.0\"><dict><key>Name</key><string>AdHoc</string></dict>",  // no end
        "<plist version=\"1.0\"><dict><key>Name</key><string>AdHoc</dict></plist>",
        "<plist version=\"1.0\"><array><string>AdHoc</string></array></plist>",
        "<plist version=\"1.0\"><dict><key>Name</key><integer>1</integer></dict></plist>",
    };
    for (const auto& bytes : damaged) {
        write(dir / "embedded.mobileprovision", bytes);
        log::Capture capture;
        EXPECT_FALSE(AppBuildEnv::profileName(dir)) << bytes;
        EXPECT_EQ(capture.count("[AppBuildEnv] decode "), 1u) << bytes;
        EXPECT_EQ(AppBuildEnv::decide(dir), Env::unknown) << bytes;
    }
}

TEST(AppBuildEnv, RawValuesRoundTripAndUnknownTextsGiveNothing) {
    for (auto env : {Env::simulator, Env::development, Env::adhoc, Env::testflight, Env::appstore,
                     Env::unknown})
        EXPECT_EQ(AppBuildEnv::envFromRawValue(AppBuildEnv::rawValue(env)), env);
    EXPECT_EQ(AppBuildEnv::rawValue(Env::testflight), "testflight");
    EXPECT_FALSE(AppBuildEnv::envFromRawValue("AdHoc"));
    EXPECT_FALSE(AppBuildEnv::envFromRawValue(""));
}

TEST(AppBuildEnv, TheBundleDirectoryComesFromTheEnvironmentElseTheExecutable) {
    TempDir bundle;
    ::setenv("LMKIT_BUNDLE_DIR", bundle.path().c_str(), 1);
    EXPECT_EQ(AppBuildEnv::bundleDirectory(), bundle.path());
    ::unsetenv("LMKIT_BUNDLE_DIR");
    EXPECT_EQ(AppBuildEnv::bundleDirectory(),
              std::filesystem::read_symlink("/proc/self/exe").parent_path());
}
