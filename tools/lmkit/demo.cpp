// lmkit demo: the kit's main job on its embedded default.
#include <cstdio>

#include "Command.hpp"

namespace lmkit::tool {
namespace {

Command demo("demo", "Run the kit's main job on simulated nodes on loopback", [](CLI::App& app,
                                                                                   Common& common) {
    app.add_flag("--json", common.json, "Print data as JSON");
    return [&common]() -> int {
        std::puts(common.json ? "{\"status\":\"the node-selection demo is not built yet\"}"
                              : "lmkit demo: the node-selection demo is not built yet");
        return 0;
    };
});

}  // namespace
}  // namespace lmkit::tool
