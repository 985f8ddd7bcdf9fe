// lmkit logs: where the kit's three log streams write, and which files they hold.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/foundation/LogFileManager.hpp"

namespace lmkit::tool {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

struct StreamInfo {
    const char* name;
    LogFileManager& manager;
};

std::vector<StreamInfo> streams() {
    return {{"app", LogFileManager::app()},
            {"api", LogFileManager::api()},
            {"tunnel", LogFileManager::tunnel()}};
}

std::string localTime(fs::file_time_type time) {
    auto system = std::chrono::file_clock::to_sys(time);
    std::time_t t = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(system));
    std::tm local{};
    localtime_r(&t, &local);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

int printPaths(bool json) {
    Json out = Json::array();
    for (auto& stream : streams()) {
        auto folder = stream.manager.logsDirectory();
        if (json) {
            out.push_back({{"stream", stream.name},
                           {"prefix", stream.manager.prefix()},
                           {"folder", folder.string()}});
        } else {
            std::printf("%-7s %-7s %s\n", stream.name, stream.manager.prefix().c_str(),
                        folder.c_str());
        }
    }
    if (json)
        std::puts(out.dump(2).c_str());
    return 0;
}

int printFiles(bool json) {
    Json out = Json::array();
    for (auto& stream : streams()) {
        auto folder = stream.manager.logsDirectory();
        Json files = Json::array();
        if (!json)
            std::printf("%s (%s) %s\n", stream.name, stream.manager.prefix().c_str(),
                        folder.c_str());
        for (auto& path : stream.manager.sortedLogFilePaths()) {
            std::error_code error;
            auto size = fs::file_size(path, error);
            if (error)
                continue;  // deleted while listing
            auto modified = fs::last_write_time(path, error);
            if (error)
                continue;
            if (json) {
                files.push_back({{"name", path.filename().string()},
                                 {"path", path.string()},
                                 {"size", size},
                                 {"modified", localTime(modified)}});
            } else {
                std::printf("  %-28s %10ju bytes  %s\n", path.filename().c_str(),
                            static_cast<uintmax_t>(size), localTime(modified).c_str());
            }
        }
        if (json) {
            out.push_back({{"stream", stream.name},
                           {"prefix", stream.manager.prefix()},
                           {"folder", folder.string()},
                           {"files", std::move(files)}});
        }
    }
    if (json)
        std::puts(out.dump(2).c_str());
    return 0;
}

Command logs("logs", "Show where the app, api and tunnel log streams write and their files",
             [](CLI::App& app, Common& common) {
                 app.require_subcommand(1);
                 CLI::App* path = app.add_subcommand("path", "Print each stream's log folder");
                 CLI::App* list =
                     app.add_subcommand("list", "List each stream's log files, newest first");
                 for (CLI::App* sub : {&app, path, list}) {
                     sub->add_flag("--json", common.json, "Print data as JSON");
                 }
                 return [&common, path]() -> int {
                     return path->parsed() ? printPaths(common.json) : printFiles(common.json);
                 };
             });

}  // namespace
}  // namespace lmkit::tool
