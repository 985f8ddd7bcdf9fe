// lmkit select: probe the nodes of a service document and rank them.
#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <optional>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "NodeRun.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"

namespace lmkit::tool {
namespace {

struct SelectOptions {
    std::string file;
    std::string mode = "best";
    std::string delayMode = "avg";
    std::string interface = "any";
    long count = 5;
    double timeout = 0;
    long port = 9999;
    std::string prefix;
    bool explain = false;
    std::optional<std::uint64_t> seed;
};

Command select("select", "Probe the nodes of a service document and rank them",
               [](CLI::App& app, Common& common) {
                   auto options = std::make_shared<SelectOptions>();
                   app.add_option("FILE", options->file,
                                  "Acceleration answer (nodes under \"acc\") or array of nodes")
                       ->required();
                   app.add_flag("--json", common.json, "Print data as JSON");
                   app.add_option("--mode", options->mode, "best, multipath or ping")
                       ->check(CLI::IsMember({"best", "multipath", "ping"}));
                   app.add_option("--delay-mode", options->delayMode, "avg or min")
                       ->check(CLI::IsMember({"avg", "min"}));
                   app.add_option("--interface", options->interface, "any, wifi or cellular")
                       ->check(CLI::IsMember({"any", "wifi", "cellular"}));
                   app.add_option("--count", options->count,
                                  "Probes per ping server (default 5; another count, like "
                                  "--interface, takes a fixed time-out: 2.5 s unless --timeout)")
                       ->check(CLI::Range(1, 100));
                   app.add_option("--timeout", options->timeout,
                                  "Fixed receive time-out in seconds (0: computed from the "
                                  "number of nodes)")
                       ->check(CLI::Range(0.0, 3600.0));
                   app.add_option("--port", options->port, "Destination port of the probes")
                       ->check(CLI::Range(1, 65535));
                   app.add_option("--prefix", options->prefix, "Text put before every probe");
                   app.add_flag("--explain", options->explain,
                                "Show why: every node's terms and partial scores, the weights, "
                                "the score gap and the random draws of the choice");
                   app.add_option("--seed", options->seed,
                                  "Seed of the choice's random draws, to repeat a choice");
                   return [options, &common]() -> int {
                       NodeSelector::Nodes nodes;
                       std::shared_ptr<AccConfig> config;
                       readNodeDocument(options->file, nodes, config);
                       // The document's text and tree are gone; their pages need not stay
                       // resident for the seconds the probing takes.
                       malloc_trim(0);
                       NodeRunOptions run;
                       run.mode = options->mode == "best"        ? NodeSelector::kModeBestNode
                                  : options->mode == "multipath" ? NodeSelector::kModeTestMultipath
                                                                 : NodeSelector::kModeTestPing;
                       run.delayMode = options->delayMode == "min" ? NodeSelector::kDelayModeMin
                                                                   : NodeSelector::kDelayModeAvg;
                       run.interfaceType = options->interface == "wifi"       ? 1
                                           : options->interface == "cellular" ? 2
                                                                              : 0;
                       run.count = options->count;
                       run.timeout = options->timeout;
                       run.port = options->port;
                       run.prefix = options->prefix;
                       run.progress = !common.json && isatty(STDERR_FILENO);
                       run.seed = options->seed;
                       auto result = runSelection(nodes, config, run);
                       if (common.json) {
                           printNodeResultJson(result, options->explain);
                       } else {
                           printNodeTable(result);
                           if (options->explain)
                               printExplanation(result);
                       }
                       return 0;
                   };
               });

}  // namespace
}  // namespace lmkit::tool
