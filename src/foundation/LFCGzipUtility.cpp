#include "lmkit/foundation/LFCGzipUtility.hpp"

#include <algorithm>
#include <limits>
#include <optional>

#include <fmt/format.h>
#include <zlib.h>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

namespace {

constexpr const char* kGzipName = "+[LFCGzipUtility gzipData:]";

// Small inputs get a buffer this large, so that their header and trailer always fit.
constexpr std::size_t kMinimumGzipBuffer = 16384;

// deflate: default level, 15-bit window plus 16 for a gzip header and trailer, memory level 8.
constexpr int kGzipWindowBits = 31;
constexpr int kMemoryLevel = 8;

// inflate: 15-bit window plus 32, so that a gzip or a zlib header is detected.
constexpr int kAutoDetectWindowBits = 47;

// zlib counts bytes of one call in uInt.
constexpr std::size_t kMaxChunk = std::numeric_limits<uInt>::max();

std::string deflateInitErrorText(int code) {
    switch (code) {
        case Z_VERSION_ERROR:
            return "The version of zlib.h and the version of the library linked do not match.";
        case Z_MEM_ERROR:
            return "Insufficient memory.";
        case Z_STREAM_ERROR:
            return "Invalid parameter passed in to function.";
        default:
            return "Unknown error code.";
    }
}

// Inflates `input` into `output`, never letting the output grow past `limit` bytes when a
// limit is given. The buffer starts at one and a half times the input and grows by half the
// input at a time.
UngzipResult::Status inflateInto(const Data& input, std::optional<std::size_t> limit,
                                 Data& output) {
    const std::size_t step = input.size() / 2;
    // One byte beyond the limit tells a stream that would exceed it from one that fits exactly.
    // A limit near the top of the range is no limit: no buffer grows that far.
    const std::size_t unbounded = std::numeric_limits<std::size_t>::max() - step;
    const std::size_t cap = limit && *limit < unbounded ? *limit + 1 : unbounded;

    z_stream stream{};
    if (inflateInit2(&stream, kAutoDetectWindowBits) != Z_OK)
        return UngzipResult::Status::Corrupt;

    std::size_t produced = 0;
    int status = Z_OK;
    try {
        output.resize(std::min(input.size() + step, cap));
        std::size_t consumed = 0;
        do {
            if (produced >= output.size()) {
                if (output.size() >= cap)
                    break;
                output.resize(std::min(output.size() + step, cap));
            }
            if (stream.avail_in == 0) {
                stream.next_in = const_cast<Bytef*>(input.data()) + consumed;
                stream.avail_in = static_cast<uInt>(std::min(input.size() - consumed, kMaxChunk));
            }
            const uInt inBefore = stream.avail_in;
            const uInt room = static_cast<uInt>(std::min(output.size() - produced, kMaxChunk));
            stream.next_out = output.data() + produced;
            stream.avail_out = room;
            status = inflate(&stream, Z_SYNC_FLUSH);
            produced += room - stream.avail_out;
            consumed += inBefore - stream.avail_in;
        } while (status == Z_OK);
    } catch (const std::exception&) {
        // Out of memory while growing: the stream is as good as undecodable here.
        status = Z_MEM_ERROR;
    }
    const int endStatus = inflateEnd(&stream);

    if (status == Z_STREAM_END && endStatus == Z_OK && !(limit && produced > *limit)) {
        output.resize(produced);
        return UngzipResult::Status::Ok;
    }
    output.clear();
    if (limit && produced > *limit)
        return UngzipResult::Status::TooLarge;
    return UngzipResult::Status::Corrupt;
}

}  // namespace

std::optional<Data> LFCGzipUtility::gzipData(const Data& data) {
    if (data.empty()) {
        log::error(
            fmt::format("{}: Error: Can't compress an empty or null NSData object.", kGzipName));
        return std::nullopt;
    }
    if (data.size() > kMaxChunk / 2)
        return std::nullopt;  // past what one deflate pass takes

    z_stream stream{};
    const int initStatus = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits,
                                        kMemoryLevel, Z_DEFAULT_STRATEGY);
    if (initStatus != Z_OK) {
        log::error(fmt::format("{}: deflateInit2() Error: \"{}\" Message: \"{}\"", kGzipName,
                               deflateInitErrorText(initStatus),
                               stream.msg != nullptr ? stream.msg : "(null)"));
        return std::nullopt;
    }

    // Sized up front so that deflate finishes in one pass; it is never grown.
    const std::size_t capacity =
        data.size() <= kMinimumGzipBuffer
            ? kMinimumGzipBuffer
            : static_cast<std::size_t>(static_cast<double>(data.size()) * 1.01 + 12);
    Data output;
    try {
        output.resize(capacity);
    } catch (const std::exception&) {
        deflateEnd(&stream);
        return std::nullopt;
    }
    stream.next_in = const_cast<Bytef*>(data.data());
    stream.avail_in = static_cast<uInt>(data.size());
    int status = Z_OK;
    do {
        stream.next_out = output.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(capacity - stream.total_out);
        status = deflate(&stream, Z_FINISH);
    } while (status == Z_OK);
    const std::size_t written = stream.total_out;
    deflateEnd(&stream);
    if (status != Z_STREAM_END)
        return std::nullopt;

    output.resize(written);
    log::info(fmt::format("{}: Compressed file from {} KB to {} KB", kGzipName, data.size() / 1024,
                          written / 1024));
    return output;
}

std::optional<Data> LFCGzipUtility::ungzipData(const Data& data) {
    if (data.empty())
        return data;
    Data output;
    if (inflateInto(data, std::nullopt, output) != UngzipResult::Status::Ok)
        return std::nullopt;
    return output;
}

UngzipResult LFCGzipUtility::ungzipData(const Data& data, std::size_t maxBytes) {
    UngzipResult result;
    if (data.empty()) {
        result.status = UngzipResult::Status::Ok;
        return result;
    }
    result.status = inflateInto(data, maxBytes, result.data);
    return result;
}

}  // namespace lmkit
