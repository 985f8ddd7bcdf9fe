#include "lmkit/settings/AppBuildEnv.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include <plist/plist.h>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

namespace {

constexpr const char* kBundleVariable = "LMKIT_BUNDLE_DIR";
constexpr const char* kProfileFileName = "embedded.mobileprovision";
constexpr const char* kReceiptDirectory = "StoreKit";
constexpr const char* kReceiptName = "receipt";
constexpr const char* kSandboxReceiptName = "sandboxReceipt";

constexpr std::array<std::pair<AppBuildEnv::Env, std::string_view>, 6> kRawValues{{
    {AppBuildEnv::Env::simulator, "simulator"},
    {AppBuildEnv::Env::development, "development"},
    {AppBuildEnv::Env::adhoc, "adhoc"},
    {AppBuildEnv::Env::testflight, "testflight"},
    {AppBuildEnv::Env::appstore, "appstore"},
    {AppBuildEnv::Env::unknown, "unknown"},
}};

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

bool containsIgnoringCase(std::string_view text, std::string_view pattern) {
    auto found = std::search(
        text.begin(), text.end(), pattern.begin(), pattern.end(),
        [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
    return found != text.end();
}

}  // namespace

std::optional<MobileProvision> MobileProvision::fromProfileData(std::string_view bytes,
                                                                std::string& error) {
    // The profile is read byte for byte (as ISO Latin-1 text would be): the property list sits in
    // plain text inside the signature's binary wrapping, and its bytes go to the parser unchanged.
    constexpr std::string_view kStart = "<plist", kEnd = "</plist>";
    auto start = bytes.find(kStart);
    auto end = start == std::string_view::npos ? start : bytes.find(kEnd, start);
    if (end == std::string_view::npos) {
        error = "no property list in the provisioning profile";
        return std::nullopt;
    }
    std::string_view xml = bytes.substr(start, end + kEnd.size() - start);
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    PlistPtr owner(root);
    if (!root || plist_get_node_type(root) != PLIST_DICT) {
        error = "the provisioning profile's property list is not a dictionary";
        return std::nullopt;
    }
    plist_t name = plist_dict_get_item(root, "Name");
    if (!name || plist_get_node_type(name) != PLIST_STRING) {
        error = "the provisioning profile has no text Name";
        return std::nullopt;
    }
    char* text = nullptr;
    plist_get_string_val(name, &text);
    MobileProvision profile;
    if (text) {
        profile.Name = std::string(text);
        std::free(text);
    }
    return profile;
}

std::filesystem::path AppBuildEnv::bundleDirectory() {
    if (const char* dir = std::getenv(kBundleVariable); dir && *dir)
        return dir;
    std::error_code ec;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec)
        return std::filesystem::current_path(ec);
    return executable.parent_path();
}

std::filesystem::path AppBuildEnv::appStoreReceiptURL(
    const std::filesystem::path& bundleDirectory) {
    auto directory = bundleDirectory / kReceiptDirectory;
    std::error_code ec;
    if (std::filesystem::exists(directory / kSandboxReceiptName, ec))
        return directory / kSandboxReceiptName;
    return directory / kReceiptName;
}

std::optional<std::string> AppBuildEnv::profileName(const std::filesystem::path& bundleDirectory) {
    auto path = bundleDirectory / kProfileFileName;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        log::error("[AppBuildEnv] no embedded provisioning profile at " + path.string());
        return std::nullopt;
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string error;
    auto profile = MobileProvision::fromProfileData(bytes, error);
    if (!profile) {
        log::error("[AppBuildEnv] decode " + path.string() + " error: " + error);
        return std::nullopt;
    }
    return profile->Name;
}

AppBuildEnv::Env AppBuildEnv::decide(const std::filesystem::path& bundleDirectory) {
    auto name = profileName(bundleDirectory);
    if (name && containsIgnoringCase(*name, "adhoc"))
        return Env::adhoc;
    auto receipt = appStoreReceiptURL(bundleDirectory);
    if (receipt.filename() == kSandboxReceiptName)
        return Env::testflight;
    std::error_code ec;
    if (receipt.filename() == kReceiptName && std::filesystem::exists(receipt, ec))
        return Env::appstore;
    return Env::unknown;
}

AppBuildEnv::Env AppBuildEnv::env() {
    static const Env decided = decide(bundleDirectory());
    return decided;
}

std::string AppBuildEnv::envString() {
    return std::string(rawValue(env()));
}

std::string_view AppBuildEnv::rawValue(Env env) {
    for (const auto& [value, text] : kRawValues)
        if (value == env)
            return text;
    return "unknown";
}

std::optional<AppBuildEnv::Env> AppBuildEnv::envFromRawValue(std::string_view text) {
    for (const auto& [value, raw] : kRawValues)
        if (raw == text)
            return value;
    return std::nullopt;
}

}  // namespace lmkit
