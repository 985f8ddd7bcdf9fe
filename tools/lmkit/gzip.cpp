// lmkit gzip: compresses a file or standard input into a gzip stream.
#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/foundation/LFCGzipUtility.hpp"

namespace lmkit::tool {
namespace {

struct GzipOptions {
    std::string input;
    std::string output;
};

Command gzip("gzip", "Compress a file (or standard input) to gzip", [](CLI::App& app, Common&) {
    auto options = std::make_shared<GzipOptions>();
    app.add_option("file", options->input, "File to compress (standard input when absent or -)");
    app.add_option("-o,--output", options->output, "Write here instead of standard output");
    return [options]() -> int {
        const Data input = readInput(options->input);
        if (input.empty())
            throw Failure("cannot compress empty input");
        const std::optional<Data> compressed = LFCGzipUtility::gzipData(input);
        if (!compressed)
            throw Failure("cannot compress: the data does not fit the buffer sized for it");
        writeOutput(options->output, *compressed);
        return 0;
    };
});

}  // namespace
}  // namespace lmkit::tool
