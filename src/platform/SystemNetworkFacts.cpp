#include "lmkit/platform/SystemNetworkFacts.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <memory>
#include <string_view>
#include <variant>

namespace lmkit {

namespace {

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";

constexpr const char* kModemManagerName = "org.freedesktop.ModemManager1";
constexpr const char* kModemManagerPath = "/org/freedesktop/ModemManager1";
constexpr const char* kModemInterface = "org.freedesktop.ModemManager1.Modem";
constexpr const char* kModem3gppInterface = "org.freedesktop.ModemManager1.Modem.Modem3gpp";
constexpr const char* kSimInterface = "org.freedesktop.ModemManager1.Sim";

constexpr const char* kNetworkManagerName = "org.freedesktop.NetworkManager";
constexpr const char* kNetworkManagerPath = "/org/freedesktop/NetworkManager";
constexpr const char* kNetworkManagerInterface = "org.freedesktop.NetworkManager";
constexpr const char* kDeviceInterface = "org.freedesktop.NetworkManager.Device";
constexpr const char* kWirelessInterface = "org.freedesktop.NetworkManager.Device.Wireless";
constexpr const char* kAccessPointInterface = "org.freedesktop.NetworkManager.AccessPoint";
constexpr uint32_t kDeviceTypeWiFi = 2;  // NetworkManager's NM_DEVICE_TYPE_WIFI

// Both services name "no object" (no SIM, no access point) with the root path.
constexpr std::string_view kNoObject = "/";

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

/// A property value of the kinds the facts read here have: texts and object paths, unsigned
/// numbers, and byte arrays (kept as text). Properties of other kinds are skipped.
using Value = std::variant<std::monostate, std::string, uint32_t>;
using Properties = std::map<std::string, Value, std::less<>>;

std::optional<std::string> textOf(const Properties& properties, std::string_view name) {
    auto found = properties.find(name);
    if (found == properties.end())
        return std::nullopt;
    const auto* text = std::get_if<std::string>(&found->second);
    if (!text)
        return std::nullopt;
    return *text;
}

/// A text property that is present and not empty; services leave unknown texts empty.
std::optional<std::string> nonEmptyTextOf(const Properties& properties, std::string_view name) {
    auto text = textOf(properties, name);
    if (!text || text->empty())
        return std::nullopt;
    return text;
}

uint32_t numberOf(const Properties& properties, std::string_view name) {
    auto found = properties.find(name);
    if (found == properties.end())
        return 0;
    const auto* number = std::get_if<uint32_t>(&found->second);
    return number ? *number : 0;
}

/// Reads one variant at the message's position into `value`.
int readVariant(sd_bus_message* message, Value& value) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(message, &type, &contents);
    if (r <= 0)
        return r < 0 ? r : -EBADMSG;
    if (type != SD_BUS_TYPE_VARIANT || contents == nullptr)
        return -EBADMSG;
    const std::string_view kind = contents;
    if (kind != "s" && kind != "o" && kind != "u" && kind != "ay")
        return sd_bus_message_skip(message, "v");
    r = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0)
        return r;
    if (kind == "u") {
        uint32_t number = 0;
        r = sd_bus_message_read_basic(message, 'u', &number);
        value = number;
    } else if (kind == "ay") {
        const void* bytes = nullptr;
        size_t size = 0;
        r = sd_bus_message_read_array(message, 'y', &bytes, &size);
        value = size == 0 ? std::string() : std::string(static_cast<const char*>(bytes), size);
    } else {
        const char* text = nullptr;
        r = sd_bus_message_read_basic(message, kind[0], &text);
        value = std::string(text ? text : "");
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(message);
}

/// Reads an a{sv} dictionary of properties.
int readProperties(sd_bus_message* message, Properties& properties) {
    int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r <= 0)
        return r < 0 ? r : -EBADMSG;
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(message, 's', &name)) < 0)
            return r;
        Value value;
        if ((r = readVariant(message, value)) < 0)
            return r;
        properties[name] = std::move(value);
        if ((r = sd_bus_message_exit_container(message)) < 0)
            return r;
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(message);
}

/// One connection to the bus for one reading, with the reading's deadline.
class Connection {
  public:
    /// The bus named by kBusAddressVariable, else the system bus; nullopt when it cannot be
    /// reached. Connecting does not wait: the handshake completes within the first call.
    static std::optional<Connection> open() {
        sd_bus* raw = nullptr;
        int r;
        const char* address = std::getenv(SystemNetworkFacts::kBusAddressVariable);
        if (address != nullptr && *address != '\0') {
            r = sd_bus_new(&raw);
            if (r >= 0)
                r = sd_bus_set_address(raw, address);
            if (r >= 0)
                r = sd_bus_set_bus_client(raw, 1);
            if (r >= 0)
                r = sd_bus_start(raw);
        } else {
            r = sd_bus_open_system(&raw);
        }
        std::unique_ptr<sd_bus, BusCloser> bus(raw);
        if (r < 0 || !bus)
            return std::nullopt;
        return Connection(std::move(bus));
    }

    bool outOfTime() const { return std::chrono::steady_clock::now() >= deadline_; }

    /// Calls `member` with text arguments; the reply, or null on an error reply, a time-out or
    /// when the reading has used up its time.
    Message call(const char* destination, const char* path, const char* interface,
                 const char* member, std::initializer_list<const char*> arguments = {}) {
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline_ - std::chrono::steady_clock::now());
        auto timeout = std::min<std::chrono::microseconds>(left, SystemNetworkFacts::kCallTimeout);
        // sd-bus reads a time-out of 0 as its own default of 25 s.
        if (timeout.count() <= 0)
            return nullptr;
        sd_bus_message* rawCall = nullptr;
        if (sd_bus_message_new_method_call(bus_.get(), &rawCall, destination, path, interface,
                                           member) < 0) {
            return nullptr;
        }
        Message request(rawCall);
        for (const char* argument : arguments) {
            if (sd_bus_message_append_basic(request.get(), 's', argument) < 0)
                return nullptr;
        }
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* rawReply = nullptr;
        int r = sd_bus_call(bus_.get(), request.get(), static_cast<uint64_t>(timeout.count()),
                            &error, &rawReply);
        sd_bus_error_free(&error);
        Message reply(rawReply);
        if (r < 0)
            return nullptr;
        return reply;
    }

    /// Every property of `interface` on `path`; nullopt when the object does not answer.
    std::optional<Properties> getAll(const char* destination, const std::string& path,
                                     const char* interface) {
        auto reply = call(destination, path.c_str(), kPropertiesInterface, "GetAll", {interface});
        Properties properties;
        if (!reply || readProperties(reply.get(), properties) < 0)
            return std::nullopt;
        return properties;
    }

    /// One property; an empty value when it is absent or does not answer.
    Value get(const char* destination, const std::string& path, const char* interface,
              const char* name) {
        auto reply =
            call(destination, path.c_str(), kPropertiesInterface, "Get", {interface, name});
        Value value;
        if (!reply || readVariant(reply.get(), value) < 0)
            return {};
        return value;
    }

  private:
    explicit Connection(std::unique_ptr<sd_bus, BusCloser> bus)
        : bus_(std::move(bus)),
          deadline_(std::chrono::steady_clock::now() + SystemNetworkFacts::kReadingBudget) {}

    std::unique_ptr<sd_bus, BusCloser> bus_;
    std::chrono::steady_clock::time_point deadline_;
};

struct ModemEntry {
    ModemFacts facts;
    std::string simPath;
};

/// Reads GetManagedObjects' a{oa{sa{sv}}}, keeping the objects that are modems.
int readManagedModems(sd_bus_message* message, std::vector<ModemEntry>& modems) {
    int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    if (r <= 0)
        return r < 0 ? r : -EBADMSG;
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}")) >
           0) {
        const char* path = nullptr;
        if ((r = sd_bus_message_read_basic(message, 'o', &path)) < 0)
            return r;
        if ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sa{sv}}")) < 0)
            return r;
        ModemEntry entry;
        entry.facts.path = path;
        bool isModem = false;
        while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) >
               0) {
            const char* interface = nullptr;
            if ((r = sd_bus_message_read_basic(message, 's', &interface)) < 0)
                return r;
            Properties properties;
            if ((r = readProperties(message, properties)) < 0)
                return r;
            const std::string_view name = interface;
            if (name == kModemInterface) {
                isModem = true;
                entry.facts.accessTechnologies = numberOf(properties, "AccessTechnologies");
                entry.simPath = textOf(properties, "Sim").value_or(std::string(kNoObject));
            } else if (name == kModem3gppInterface) {
                entry.facts.operatorCode = nonEmptyTextOf(properties, "OperatorCode");
                entry.facts.operatorName = nonEmptyTextOf(properties, "OperatorName");
            }
            if ((r = sd_bus_message_exit_container(message)) < 0)
                return r;
        }
        if (r < 0 || (r = sd_bus_message_exit_container(message)) < 0 ||
            (r = sd_bus_message_exit_container(message)) < 0) {
            return r;
        }
        if (isModem)
            modems.push_back(std::move(entry));
    }
    if (r < 0)
        return r;
    return sd_bus_message_exit_container(message);
}

}  // namespace

std::optional<std::vector<ModemFacts>> SystemNetworkFacts::modems() {
    try {
        auto connection = Connection::open();
        if (!connection)
            return std::nullopt;
        auto reply = connection->call(kModemManagerName, kModemManagerPath, kObjectManagerInterface,
                                      "GetManagedObjects");
        std::vector<ModemEntry> entries;
        if (!reply || readManagedModems(reply.get(), entries) < 0)
            return std::nullopt;
        std::sort(entries.begin(), entries.end(),
                  [](const auto& a, const auto& b) { return a.facts.path < b.facts.path; });
        std::vector<ModemFacts> modems;
        for (auto& entry : entries) {
            if (!entry.simPath.empty() && entry.simPath != kNoObject) {
                // A SIM that vanished between the calls leaves the modem's own facts.
                if (auto sim =
                        connection->getAll(kModemManagerName, entry.simPath, kSimInterface)) {
                    entry.facts.simOperatorCode = nonEmptyTextOf(*sim, "OperatorIdentifier");
                    entry.facts.simOperatorName = nonEmptyTextOf(*sim, "OperatorName");
                }
            }
            modems.push_back(std::move(entry.facts));
        }
        return modems;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::vector<WiFiDeviceFacts>> SystemNetworkFacts::wifiDevices() {
    try {
        auto connection = Connection::open();
        if (!connection)
            return std::nullopt;
        auto reply =
            connection->call(kNetworkManagerName, kNetworkManagerPath, kPropertiesInterface, "Get",
                             {kNetworkManagerInterface, "Devices"});
        if (!reply || sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_VARIANT, "ao") <= 0)
            return std::nullopt;
        char** paths = nullptr;
        if (sd_bus_message_read_strv(reply.get(), &paths) < 0)
            return std::nullopt;
        std::vector<std::string> devicePaths;
        for (char** path = paths; path != nullptr && *path != nullptr; ++path) {
            devicePaths.emplace_back(*path);
            std::free(*path);
        }
        std::free(paths);

        std::vector<WiFiDeviceFacts> devices;
        for (const auto& path : devicePaths) {
            // Devices come and go; one that no longer answers is simply not listed.
            if (connection->outOfTime())
                break;
            auto device = connection->getAll(kNetworkManagerName, path, kDeviceInterface);
            if (!device || numberOf(*device, "DeviceType") != kDeviceTypeWiFi)
                continue;
            WiFiDeviceFacts facts;
            facts.interfaceName = textOf(*device, "Interface").value_or("");
            Value active =
                connection->get(kNetworkManagerName, path, kWirelessInterface, "ActiveAccessPoint");
            const auto* accessPoint = std::get_if<std::string>(&active);
            if (accessPoint && !accessPoint->empty() && *accessPoint != kNoObject) {
                if (auto ap = connection->getAll(kNetworkManagerName, *accessPoint,
                                                 kAccessPointInterface)) {
                    facts.ssid = textOf(*ap, "Ssid").value_or("");
                    facts.bssid = textOf(*ap, "HwAddress").value_or("");
                }
            }
            devices.push_back(std::move(facts));
        }
        return devices;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace lmkit
