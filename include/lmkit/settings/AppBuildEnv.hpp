#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace lmkit {

/// The part of the embedded provisioning profile the kit reads.
struct MobileProvision {
    std::optional<std::string> Name;

    /// Decodes the property list inside a profile's bytes: the text from "<plist" up to and
    /// including "</plist>" (a signed profile wraps it in binary). Nil and `error` set when there
    /// is no such text, it is no property list, or it has no text "Name".
    static std::optional<MobileProvision> fromProfileData(std::string_view bytes,
                                                          std::string& error);
};

/// How the running build was distributed, decided from the app bundle: the embedded provisioning
/// profile ("embedded.mobileprovision") and the store receipt ("StoreKit/receipt", or
/// "StoreKit/sandboxReceipt" for a test-flight build).
class AppBuildEnv {
  public:
    enum class Env { simulator, development, adhoc, testflight, appstore, unknown };

    /// The environment of this process, decided on first use and kept.
    static Env env();
    static std::string envString();

    /// The decision itself, for the bundle in `bundleDirectory` (not kept): a profile whose name
    /// contains "adhoc" in any letter case is adhoc; else a receipt URL ending in
    /// "sandboxReceipt" is testflight; else an existing "receipt" file is appstore; else unknown.
    /// simulator and development are never decided: a build that needs them sets them itself.
    static Env decide(const std::filesystem::path& bundleDirectory);

    /// The text form of `env` ("simulator", "development", "adhoc", "testflight", "appstore",
    /// "unknown") and back; a text that is none of these gives nil.
    static std::string_view rawValue(Env env);
    static std::optional<Env> envFromRawValue(std::string_view text);

    /// The app bundle directory: LMKIT_BUNDLE_DIR, else the running executable's directory.
    static std::filesystem::path bundleDirectory();
    /// The store receipt's location in `bundleDirectory`: the sandbox receipt when that file
    /// exists, else where the store puts the production receipt.
    static std::filesystem::path appStoreReceiptURL(const std::filesystem::path& bundleDirectory);
    /// The profile name of the bundle's embedded provisioning profile, nil (after an error line)
    /// when it cannot be read.
    static std::optional<std::string> profileName(const std::filesystem::path& bundleDirectory);
};

}  // namespace lmkit
