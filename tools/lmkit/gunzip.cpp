// lmkit gunzip: decompresses gzip members or a zlib stream as gzip -d does, refusing to grow
// past a size limit.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

#include "ByteCount.hpp"
#include "Command.hpp"
#include "DataFiles.hpp"
#include "GunzipStream.hpp"
#include "OutputFile.hpp"

namespace lmkit::tool {
namespace {

// Large enough for any payload the kit exchanges, small enough that a decompression bomb
// cannot fill the disk or the pipe's reader.
constexpr const char* kDefaultMaxBytes = "1G";

struct GunzipOptions {
    std::string input;
    std::string output;
    std::string maxBytes = kDefaultMaxBytes;
};

Command gunzip("gunzip", "Decompress gzip members or a zlib stream (file or standard input)",
               [](CLI::App& app, Common&) {
                   auto options = std::make_shared<GunzipOptions>();
                   app.add_option("file", options->input,
                                  "File to decompress (standard input when absent or -)");
                   app.add_option("-o,--output", options->output,
                                  "Write here instead of standard output; the file is replaced "
                                  "only once the whole input decompressed");
                   app.add_option("--max-bytes", options->maxBytes,
                                  "Refuse output larger than this many bytes; K, M and G "
                                  "multiply by 1024 (default 1G)");
                   return [options]() -> int {
                       const auto maxBytes = parseByteCount("--max-bytes", options->maxBytes);
                       const bool fromStdin = options->input.empty() || options->input == "-";
                       std::unique_ptr<std::FILE, FileCloser> owned;
                       if (!fromStdin) {
                           owned.reset(std::fopen(options->input.c_str(), "rb"));
                           if (!owned)
                               throw Failure("cannot read " + options->input + ": " +
                                             std::strerror(errno));
                       }
                       std::FILE* input = fromStdin ? stdin : owned.get();
                       const std::string name = fromStdin ? "standard input" : options->input;

                       if (options->output.empty() || options->output == "-") {
                           gunzipStream(input, name, maxBytes, writeStandardOutput);
                           return 0;
                       }
                       OutputFile output(options->output);
                       gunzipStream(input, name, maxBytes,
                                    [&](const std::uint8_t* data, std::size_t size) {
                                        output.write(data, size);
                                    });
                       output.commit();
                       return 0;
                   };
               });

}  // namespace
}  // namespace lmkit::tool
