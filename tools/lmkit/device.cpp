// lmkit device: the device facts the kit sends as request parameters.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/settings/DeviceInfoProvider.hpp"

namespace lmkit::tool {
namespace {

Command device("device", "Show the device facts", [](CLI::App& app, Common& common) {
    app.add_flag("--json", common.json, "Print data as JSON");
    return [&common]() -> int {
        auto& provider = DeviceInfoProvider::sharedProvider();
        auto optional = [](const std::optional<std::string>& text) {
            return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json();
        };
        nlohmann::ordered_json facts = {
            {"deviceID", provider.deviceID()},
            {"systemName", provider.systemName()},
            {"systemVersion", provider.systemVersion()},
            {"systemVersionSN", optional(provider.systemVersionSN())},
            {"memorySize", provider.memorySize()},
            {"availableMemory", provider.availableMemory()},
            {"capacity", provider.capacity()},
            {"availableCapacity", provider.availableCapacity()},
            {"screenResolution", provider.screenResolution()},
            {"deviceIDFA", optional(provider.deviceIDFA())},
            {"batteryLevel", provider.batteryLevel()},
        };
        if (common.json) {
            std::puts(facts.dump(2).c_str());
            return 0;
        }
        for (auto& [name, value] : facts.items())
            std::printf("%-18s %s\n", name.c_str(),
                        value.is_string() ? value.get<std::string>().c_str()
                        : value.is_null() ? "(absent)"
                                          : value.dump().c_str());
        return 0;
    };
});

}  // namespace
}  // namespace lmkit::tool
