// lmkit gzip: compresses a file or standard input into a gzip stream, a buffer at a time.
#include <zlib.h>

#include "Command.hpp"
#include "DataFiles.hpp"

namespace lmkit::tool {
namespace {

// The kit's own gzip parameters: default level, a 15-bit window with a gzip header and trailer,
// memory level 8.
constexpr int kGzipWindowBits = 15 + 16;
constexpr int kMemoryLevel = 8;

struct GzipOptions {
    std::string input;
    std::string output;
};

struct Deflater {
    z_stream stream{};
    Deflater() {
        if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                         Z_DEFAULT_STRATEGY) != Z_OK)
            throw Failure("cannot compress: zlib refused to start");
    }
    ~Deflater() { deflateEnd(&stream); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    template <class Sink>
    void run(const std::uint8_t* data, std::size_t size, int flush, const Sink& sink) {
        stream.next_in = const_cast<Bytef*>(data);
        stream.avail_in = static_cast<uInt>(size);
        std::uint8_t out[65536];
        int status = Z_OK;
        do {
            stream.next_out = out;
            stream.avail_out = sizeof out;
            status = deflate(&stream, flush);
            if (status == Z_STREAM_ERROR)
                throw Failure("cannot compress: zlib failed");
            if (const std::size_t produced = sizeof out - stream.avail_out; produced > 0)
                sink(out, produced);
        } while (stream.avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
    }
};

Command gzip("gzip", "Compress a file (or standard input) to gzip", [](CLI::App& app, Common&) {
    auto options = std::make_shared<GzipOptions>();
    app.add_option("file", options->input, "File to compress (standard input when absent or -)");
    app.add_option("-o,--output", options->output,
                   "Write here instead of standard output; the file is replaced only once all of "
                   "it is written");
    return [options]() -> int {
        // Constant memory whatever the input's size; an empty input is refused before anything
        // is written, as the kit's gzip refuses it.
        writeOutputChunks(options->output, [&](const auto& sink) {
            Deflater deflater;
            bool any = false;
            readInputChunks(options->input, [&](const std::uint8_t* data, std::size_t size) {
                any = true;
                deflater.run(data, size, Z_NO_FLUSH, sink);
            });
            if (!any)
                throw Failure("cannot compress empty input");
            deflater.run(nullptr, 0, Z_FINISH, sink);
        });
        return 0;
    };
});

}  // namespace
}  // namespace lmkit::tool
