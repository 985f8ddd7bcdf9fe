// lmkit qos: probe every server of a quality-of-service answer at once.
#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/models/QosConfig.hpp"
#include "lmkit/nodes/OperationQueue.hpp"
#include "lmkit/nodes/QosSpeedTestOperation.hpp"

namespace lmkit::tool {
namespace {

struct QosOptions {
    std::string file;
    std::string prefix;
};

std::shared_ptr<QosConfig> readConfig(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        throw Failure("cannot read " + path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    auto json = Json::parse(buffer.str(), nullptr, false);
    if (json.is_discarded())
        throw Failure(path + ": not a JSON document");
    Error error;
    auto config = JSONAdapter::modelOfClass<QosConfig>(json, &error);
    if (!config)
        throw Failure(path + ": " + describe(error));
    return config;
}

int runQos(const QosOptions& options, const Common& common) {
    auto config = readConfig(options.file);
    auto servers = config->availableServerAddresses.value_or(std::vector<std::string>{});
    if (servers.empty())
        throw Failure(options.file + ": the document lists no servers under \"server\"");

    auto operation = QosSpeedTestOperation::create(servers);
    operation->setSendDataPrefix(options.prefix);
    OperationQueue queue;
    queue.addOperation(operation);
    queue.waitUntilAllOperationsAreFinished();

    auto results = operation->results();
    if (common.json) {
        auto rows = nlohmann::ordered_json::array();
        for (const auto& item : results) {
            rows.push_back({{"ip", item->ip.value_or("")},
                            {"delay", item->delay().toJson()},
                            {"loss", item->loss().toJson()},
                            {"deviation", item->deviation().toJson()}});
        }
        std::printf("%s\n", nlohmann::ordered_json{{"servers", servers.size()},
                                                   {"answered", results.size()},
                                                   {"results", rows}}
                                .dump()
                                .c_str());
        return 0;
    }
    std::printf("%-40s %10s %8s %14s\n", "address", "delay ms", "loss", "deviation ms");
    for (const auto& item : results) {
        std::printf("%-40s %10s %7.0f%% %14s\n", item->ip.value_or("").c_str(),
                    item->delay().description().c_str(), item->loss().doubleValue() * 100,
                    item->deviation().description().c_str());
    }
    std::printf("%zu of %zu servers answered\n", results.size(), servers.size());
    return 0;
}

Command qos("qos", "Probe every server of a QoS answer (\"server\" list) and show each result",
            [](CLI::App& app, Common& common) {
                auto options = std::make_shared<QosOptions>();
                app.add_option("FILE", options->file, "QoS answer document (JSON)")->required();
                app.add_flag("--json", common.json, "Print data as JSON");
                app.add_option("--prefix", options->prefix, "Text put before every probe");
                return [options, &common]() -> int { return runQos(*options, common); };
            });

}  // namespace
}  // namespace lmkit::tool
