// lmkit gunzip: decompresses a gzip or zlib stream, refusing to grow past a size limit.
#include <fmt/format.h>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/foundation/LFCGzipUtility.hpp"

namespace lmkit::tool {
namespace {

// Large enough for any payload the kit exchanges, small enough that a decompression bomb
// cannot take the machine's memory.
constexpr std::size_t kDefaultMaxBytes = std::size_t{1} << 30;

struct GunzipOptions {
    std::string input;
    std::string output;
    std::size_t maxBytes = kDefaultMaxBytes;
};

Command gunzip("gunzip", "Decompress a gzip or zlib stream (file or standard input)",
               [](CLI::App& app, Common&) {
                   auto options = std::make_shared<GunzipOptions>();
                   app.add_option("file", options->input,
                                  "File to decompress (standard input when absent or -)");
                   app.add_option("-o,--output", options->output,
                                  "Write here instead of standard output");
                   app.add_option("--max-bytes", options->maxBytes,
                                  "Refuse output larger than this many bytes (default 1 GiB)");
                   return [options]() -> int {
                       const Data input = readInput(options->input);
                       UngzipResult result = LFCGzipUtility::ungzipData(input, options->maxBytes);
                       switch (result.status) {
                           case UngzipResult::Status::Ok:
                               writeOutput(options->output, result.data);
                               return 0;
                           case UngzipResult::Status::TooLarge:
                               throw Failure(
                                   fmt::format("output would exceed {} bytes (raise --max-bytes)",
                                               options->maxBytes));
                           case UngzipResult::Status::Corrupt:
                               break;
                       }
                       throw Failure("input is not a complete gzip or zlib stream");
                   };
               });

}  // namespace
}  // namespace lmkit::tool
