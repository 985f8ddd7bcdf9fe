#include "lmkit/settings/DeviceInfoProvider.hpp"
#include "lmkit/platform/AppGroup.hpp"

#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

namespace {

std::optional<std::string> firstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line))
        return std::nullopt;
    return line;
}

utsname systemNames() {
    utsname names{};
    if (::uname(&names) != 0)
        std::snprintf(names.sysname, sizeof names.sysname, "Linux");
    return names;
}

// A random (version 4) UUID in the platform's upper-case text form.
std::string randomUUID() {
    if (auto kernel = firstLine("/proc/sys/kernel/random/uuid"); kernel && kernel->size() == 36) {
        std::string text = *kernel;
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        return text;
    }
    std::random_device device;
    std::uniform_int_distribution<int> nibble(0, 15);
    std::string text;
    for (int i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20)
            text += '-';
        int value = i == 12 ? 4 : i == 16 ? (8 | (nibble(device) & 3)) : nibble(device);
        text += "0123456789ABCDEF"[value];
    }
    return text;
}

std::string format(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.f", value);
    return buffer;
}

}  // namespace

DeviceInfoProvider& DeviceInfoProvider::sharedProvider() {
    static DeviceInfoProvider provider;
    return provider;
}

DeviceInfoProvider::DeviceInfoProvider(std::shared_ptr<Keychain> keychain)
    : keychain_(keychain ? std::move(keychain)
                         : std::make_shared<Keychain>(AppGroup::identifier())),
      vendorIdentifier_(randomUUID) {
    const char* home = std::getenv("HOME");
    home_ = home && *home ? home : "/";
}

std::string DeviceInfoProvider::systemName() const {
    return systemNames().sysname;
}

std::string DeviceInfoProvider::systemVersion() const {
    return systemNames().release;
}

std::string DeviceInfoProvider::operatingSystemVersionString() const {
    {
        std::lock_guard lock(mutex_);
        if (versionString_)
            return *versionString_;
    }
    auto names = systemNames();
    // The kernel's build is the "#N" that starts its version text.
    std::string build = names.version;
    build = build.substr(0, build.find(' '));
    build.erase(std::remove(build.begin(), build.end(), '#'), build.end());
    return std::string("Version ") + names.release + " (Build " + build + ")";
}

std::optional<std::string> DeviceInfoProvider::systemVersionSN() const {
    // "A-z" also takes the six characters between 'Z' and 'a'; the identifiers in the field were
    // matched so, and keeping the range keeps their values.
    static const std::regex pattern(R"(.*\(Build ([a-zA-z0-9]+)\))");
    std::string text = operatingSystemVersionString();
    std::vector<std::string> builds;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), pattern);
         it != std::sregex_iterator(); ++it)
        builds.push_back((*it)[1].str());
    if (builds.size() != 1)
        return std::nullopt;
    return builds.front();
}

std::string DeviceInfoProvider::screenResolution() const {
    std::optional<std::pair<double, double>> size;
    std::filesystem::path root;
    {
        std::lock_guard lock(mutex_);
        size = screenSize_;
        root = root_;
    }
    if (!size) {
        // The frame buffer reports "width,height" where the machine has a screen.
        size = std::pair{0.0, 0.0};
        if (auto text = firstLine(root / "sys/class/graphics/fb0/virtual_size")) {
            double width = 0, height = 0;
            if (std::sscanf(text->c_str(), "%lf,%lf", &width, &height) == 2)
                size = std::pair{width, height};
        }
    }
    return format(size->first) + "*" + format(size->second);
}

std::optional<std::string> DeviceInfoProvider::deviceIDFA() const {
    std::lock_guard lock(mutex_);
    // A user who limits ad tracking yields the all-zero identifier, which identifies nobody.
    if (!advertisingIdentifier_ ||
        advertisingIdentifier_->find_first_not_of("0-") == std::string::npos)
        return std::nullopt;
    return advertisingIdentifier_;
}

std::string DeviceInfoProvider::deviceID() {
    std::lock_guard lock(mutex_);
    if (deviceID_)
        return *deviceID_;
    auto stored = keychain_->stringForKey(kDeviceIDKey);
    if (stored && !stored->empty()) {
        deviceID_ = stored;
        return *deviceID_;
    }
    std::string identifier = vendorIdentifier_ ? vendorIdentifier_() : randomUUID();
    log::info("Generate a new device ID: " + identifier);
    std::optional<Error> error;
    if (!keychain_->setString(identifier, kDeviceIDKey, &error))
        log::error("Generate a new device ID, but failed to save into access group keychain");
    deviceID_ = identifier;
    return identifier;
}

std::optional<long> DeviceInfoProvider::meminfoBytes(const std::string& field) const {
    std::filesystem::path root;
    {
        std::lock_guard lock(mutex_);
        root = root_;
    }
    std::ifstream in(root / "proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field + ":", 0) != 0)
            continue;
        std::istringstream fields(line.substr(field.size() + 1));
        long kibibytes = -1;
        if (fields >> kibibytes && kibibytes >= 0)
            return kibibytes * 1024;
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<long> DeviceInfoProvider::systemInfoWithTypeIdentifier(int typeIdentifier) const {
    if (typeIdentifier != kHardwareMemorySize)
        return std::nullopt;
    if (auto total = meminfoBytes("MemTotal"))
        return total;
    long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0)
        return std::nullopt;
    return pages * pageSize;
}

std::string DeviceInfoProvider::memorySize() const {
    return std::to_string(systemInfoWithTypeIdentifier(kHardwareMemorySize).value_or(0));
}

std::string DeviceInfoProvider::availableMemory() const {
    auto available = meminfoBytes("MemAvailable");
    return available ? std::to_string(*available) : "Kernel Error";
}

std::optional<std::pair<unsigned long long, unsigned long long>>
DeviceInfoProvider::fileSystemSize() const {
    std::filesystem::path home;
    {
        std::lock_guard lock(mutex_);
        home = home_;
    }
    struct statvfs info {};
    if (::statvfs(home.c_str(), &info) != 0)
        return std::nullopt;
    return std::pair{static_cast<unsigned long long>(info.f_blocks) * info.f_frsize,
                     static_cast<unsigned long long>(info.f_bavail) * info.f_frsize};
}

std::string DeviceInfoProvider::capacity() const {
    auto size = fileSystemSize();
    return std::to_string(size ? size->first : 0);
}

std::string DeviceInfoProvider::availableCapacity() const {
    auto size = fileSystemSize();
    return std::to_string(size ? size->second : 0);
}

float DeviceInfoProvider::batteryLevel() const {
    std::filesystem::path root;
    {
        std::lock_guard lock(mutex_);
        root = root_;
    }
    std::error_code ec;
    for (const auto& supply :
         std::filesystem::directory_iterator(root / "sys/class/power_supply", ec)) {
        if (firstLine(supply.path() / "type") != "Battery")
            continue;
        auto percent = firstLine(supply.path() / "capacity");
        if (!percent)
            continue;
        char* end = nullptr;
        long value = std::strtol(percent->c_str(), &end, 10);
        if (end == percent->c_str() || value < 0 || value > 100)
            continue;
        return static_cast<float>(value) / 100.0f;
    }
    return -1.0f;
}

void DeviceInfoProvider::setOperatingSystemVersionString(std::optional<std::string> text) {
    std::lock_guard lock(mutex_);
    versionString_ = std::move(text);
}

void DeviceInfoProvider::setScreenSize(double width, double height) {
    std::lock_guard lock(mutex_);
    screenSize_ = std::pair{width, height};
}

void DeviceInfoProvider::setAdvertisingIdentifier(std::optional<std::string> identifier) {
    std::lock_guard lock(mutex_);
    advertisingIdentifier_ = std::move(identifier);
}

void DeviceInfoProvider::setVendorIdentifierSource(std::function<std::string()> source) {
    std::lock_guard lock(mutex_);
    vendorIdentifier_ = std::move(source);
}

void DeviceInfoProvider::setSystemRootForTesting(std::filesystem::path root) {
    std::lock_guard lock(mutex_);
    root_ = std::move(root);
}

void DeviceInfoProvider::setHomeDirectory(std::filesystem::path directory) {
    std::lock_guard lock(mutex_);
    home_ = std::move(directory);
}

}  // namespace lmkit
