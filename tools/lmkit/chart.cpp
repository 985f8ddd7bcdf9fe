// lmkit chart: the latency chart of a watch's history, as SVG or PNG.
#include <cstdio>
#include <filesystem>

#include "Command.hpp"
#include "LatencyChart.hpp"
#include "WatchHistory.hpp"
#include "lmkit/platform/Clock.hpp"

namespace lmkit::tool {
namespace {

struct ChartOptions {
    std::string history;
    std::string out;
    double hours = 0;  // 0: everything kept
};

Command chart(
    "chart", "Draw the latency chart of a watch's history (.svg or .png)",
    [](CLI::App& app, Common&) {
        auto options = std::make_shared<ChartOptions>();
        app.add_option("history", options->history,
                       "History database (default: the watch's, in the app group)");
        app.add_option("--out", options->out, "The picture to write: FILE.svg or .png")->required();
        app.add_option("--hours", options->hours, "Only the last hours (0: all)")
            ->check(CLI::Range(0.0, 87600.0));
        return [options]() -> int {
            const auto extension = std::filesystem::path(options->out).extension();
            if (extension != ".svg" && extension != ".png")
                throw Failure("the picture must be a .svg or a .png: " + options->out);
            const std::filesystem::path path = options->history.empty()
                                                   ? defaultWatchHistoryPath()
                                                   : std::filesystem::path(options->history);
            std::string error;
            auto history = WatchHistory::openToRead(path, error);
            if (!history)
                throw Failure(error);
            const double since =
                options->hours > 0 ? Clock::nowSeconds() - options->hours * 3600 : 0;
            const auto rounds = history->rounds(since);
            if (!LatencyChart::draw(rounds, options->out, error))
                throw Failure(error);
            std::printf("%s: %zu rounds\n", options->out.c_str(), rounds.size());
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool
