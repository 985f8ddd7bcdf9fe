#include "GunzipStream.hpp"

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <fmt/format.h>
#include <zlib.h>

#include "Command.hpp"

namespace lmkit::tool {

namespace {

// 15-bit window plus 32: a gzip or a zlib header is detected.
constexpr int kAutoDetectWindowBits = 47;
// Large enough that a system call or an inflate call per buffer costs nothing next to the work.
constexpr std::size_t kBufferBytes = 64 * 1024;

struct InflateEnd {
    void operator()(z_stream* stream) const { inflateEnd(stream); }
};

class Input {
  public:
    Input(std::FILE* file, const std::string& name)
        : file_(file), name_(name), buffer_(kBufferBytes) {}

    // More bytes into the buffer; false at the end of the input.
    bool fill(z_stream& stream) {
        if (std::feof(file_))
            return false;
        std::size_t count = std::fread(buffer_.data(), 1, buffer_.size(), file_);
        if (std::ferror(file_))
            throw Failure("cannot read " + name_ + ": " + std::strerror(errno));
        stream.next_in = buffer_.data();
        stream.avail_in = static_cast<uInt>(count);
        return count > 0;
    }

  private:
    std::FILE* file_;
    const std::string& name_;
    std::vector<Bytef> buffer_;
};

[[noreturn]] void corrupt() {
    throw Failure("input is not a complete gzip or zlib stream");
}

// After a member: what follows is another member, zero padding up to the end, or an error.
// True when another member starts.
bool anotherMember(z_stream& stream, Input& input) {
    for (;;) {
        if (stream.avail_in == 0 && !input.fill(stream))
            return false;
        if (stream.next_in[0] == 0x1f)
            break;
        for (; stream.avail_in > 0; ++stream.next_in, --stream.avail_in)
            if (stream.next_in[0] != 0)
                throw Failure("input has data after the end of the compressed data");
    }
    // The magic's second byte may be in the next buffer; inflate checks it as part of the header.
    return true;
}

}  // namespace

void gunzipStream(std::FILE* file, const std::string& name, std::uint64_t maxBytes,
                  const std::function<void(const std::uint8_t*, std::size_t)>& sink) {
    z_stream state{};
    if (inflateInit2(&state, kAutoDetectWindowBits) != Z_OK)
        throw Failure("cannot start decompressing: out of memory");
    std::unique_ptr<z_stream, InflateEnd> stream(&state);
    Input input(file, name);
    std::vector<Bytef> output(kBufferBytes);
    std::uint64_t produced = 0;
    bool started = false;  // some input seen: an empty input is no stream at all

    for (;;) {
        if (state.avail_in == 0) {
            if (!input.fill(state)) {
                if (started)
                    corrupt();  // the input ended inside a member
                return;
            }
            started = true;
        }
        state.next_out = output.data();
        state.avail_out = static_cast<uInt>(output.size());
        int status = inflate(&state, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR)
            corrupt();
        std::size_t count = output.size() - state.avail_out;
        if (count > maxBytes - produced)
            throw Failure(
                fmt::format("output would exceed {} bytes (raise --max-bytes)", maxBytes));
        produced += count;
        if (count > 0)
            sink(output.data(), count);
        if (status == Z_STREAM_END) {
            if (!anotherMember(state, input))
                return;
            if (inflateReset(&state) != Z_OK)
                corrupt();
        }
    }
}

}  // namespace lmkit::tool
