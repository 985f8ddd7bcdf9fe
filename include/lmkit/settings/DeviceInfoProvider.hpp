#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "lmkit/settings/Keychain.hpp"

namespace lmkit {

/// Facts about the device used as request parameters. What Linux knows is read from the system
/// (uname, /proc/meminfo, statvfs, /sys/class/power_supply, the frame buffer); what it has no
/// notion of (the advertising and vendor identifiers, a phone's screen) is settable, so that an
/// embedding app, the command line and tests can supply it.
class DeviceInfoProvider {
  public:
    /// The item under which the device identifier lives in the shared keychain.
    static constexpr const char* kDeviceIDKey = "LumoBoosterUUIDKey";
    /// systemInfoWithTypeIdentifier's identifier of the hardware memory size.
    static constexpr int kHardwareMemorySize = 24;

    static DeviceInfoProvider& sharedProvider();

    /// A provider keeping its device identifier in `keychain` (the app group's by default).
    explicit DeviceInfoProvider(std::shared_ptr<Keychain> keychain = nullptr);

    const std::shared_ptr<Keychain>& keychain() const { return keychain_; }

    std::string systemName() const;
    std::string systemVersion() const;
    /// The build named in the operating-system version string ("... (Build 21A329)"); absent
    /// unless exactly one build is named.
    std::optional<std::string> systemVersionSN() const;
    /// "width*height" of the screen in pixels ("0*0" when there is none).
    std::string screenResolution() const;
    /// The advertising identifier; absent when unset or all zeros.
    std::optional<std::string> deviceIDFA() const;
    /// The device identifier shared by app and tunnel: read from the keychain, else made from the
    /// vendor identifier and saved there. Cached after the first call.
    std::string deviceID();
    /// Physical memory in bytes, as decimal text.
    std::string memorySize() const;
    /// Memory available to new work in bytes, as decimal text; "Kernel Error" when unknown.
    std::string availableMemory() const;
    /// Total and free bytes of the file system that holds the home directory, as decimal text.
    std::string capacity() const;
    std::string availableCapacity() const;
    /// The battery's charge from 0 to 1; -1 when the device has no battery.
    float batteryLevel() const;
    /// A hardware fact by its system-control identifier (only kHardwareMemorySize is known).
    std::optional<long> systemInfoWithTypeIdentifier(int typeIdentifier) const;

    /// The operating-system version string, "Version <release> (Build <build>)" from uname.
    std::string operatingSystemVersionString() const;

    // Facts that Linux lacks or that tests replace.
    void setOperatingSystemVersionString(std::optional<std::string> text);
    void setScreenSize(double width, double height);
    void setAdvertisingIdentifier(std::optional<std::string> identifier);
    /// Where a new device identifier comes from (a fresh random UUID by default).
    void setVendorIdentifierSource(std::function<std::string()> source);
    /// Reads /proc and /sys under `root` instead of "/".
    void setSystemRootForTesting(std::filesystem::path root);
    /// The directory whose file system capacity() measures (the home directory by default).
    void setHomeDirectory(std::filesystem::path directory);

  private:
    std::optional<long> meminfoBytes(const std::string& field) const;
    std::optional<std::pair<unsigned long long, unsigned long long>> fileSystemSize() const;

    std::shared_ptr<Keychain> keychain_;
    mutable std::mutex mutex_;
    std::optional<std::string> deviceID_;                  // guarded by mutex_
    std::optional<std::string> versionString_;             // guarded by mutex_
    std::optional<std::pair<double, double>> screenSize_;  // guarded by mutex_
    std::optional<std::string> advertisingIdentifier_;     // guarded by mutex_
    std::function<std::string()> vendorIdentifier_;        // guarded by mutex_
    std::filesystem::path root_ = "/";                     // guarded by mutex_
    std::filesystem::path home_;                           // guarded by mutex_
};

}  // namespace lmkit
