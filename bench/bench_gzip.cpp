// gzip and ungzip of 16 MiB of JSON through LFCGzipUtility, against the same zlib calls made
// directly with the same parameters and buffer sizing. Prints throughput ratios (kit / raw).
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "BenchTable.hpp"
#include "lmkit/foundation/LFCGzipUtility.hpp"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;

lmkit::Data makeJson(std::size_t size) {
    std::string text = "[";
    for (int i = 0; text.size() < size; ++i) {
        text += R"({"id":)" + std::to_string(i) + R"(,"name":"node-)" +
                std::to_string(i * 7919 % 10007) + R"(","host":")" + std::to_string(i % 223) + "." +
                std::to_string(i % 191) + R"(.7.1",)" + R"("port":)" +
                std::to_string(9000 + i % 999) + R"(,"delay":)" + std::to_string((i * 37) % 400) +
                R"(.5,"region":"zone-)" + std::to_string(i % 13) + "\"},";
    }
    text.resize(size - 1);
    text += "]";
    return lmkit::Data(text.begin(), text.end());
}

// deflate exactly as the kit does: default level, gzip window, one buffer sized up front.
std::size_t rawGzip(const lmkit::Data& input, std::vector<unsigned char>& out) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    const std::size_t capacity =
        input.size() <= 16384 ? 16384 : static_cast<std::size_t>(input.size() * 1.01 + 12);
    out.resize(capacity);
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    int status = Z_OK;
    do {
        stream.next_out = out.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(capacity - stream.total_out);
        status = deflate(&stream, Z_FINISH);
    } while (status == Z_OK);
    const std::size_t written = stream.total_out;
    deflateEnd(&stream);
    if (status != Z_STREAM_END)
        std::abort();
    out.resize(written);
    return written;
}

// inflate exactly as the kit does: auto-detected header, buffer of 1.5 x input growing by half
// the input, sync flush.
std::size_t rawUngzip(const lmkit::Data& input, std::vector<unsigned char>& out) {
    z_stream stream{};
    inflateInit2(&stream, 47);
    const std::size_t step = input.size() / 2;
    out.resize(input.size() + step);
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    int status = Z_OK;
    do {
        if (stream.total_out >= out.size())
            out.resize(out.size() + step);
        stream.next_out = out.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
        status = inflate(&stream, Z_SYNC_FLUSH);
    } while (status == Z_OK);
    const std::size_t produced = stream.total_out;
    inflateEnd(&stream);
    if (status != Z_STREAM_END)
        std::abort();
    out.resize(produced);
    return produced;
}

template <class F>
double seconds(F&& body) {
    const auto start = Clock::now();
    body();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Best time of each side over rounds that alternate between them, so that a change in the
// machine's load affects both alike.
template <class Raw, class Kit>
std::pair<double, double> bestOfAlternating(Raw&& raw, Kit&& kit) {
    double bestRaw = 1e9;
    double bestKit = 1e9;
    for (int i = 0; i < kRounds; ++i) {
        bestRaw = std::min(bestRaw, seconds(raw));
        bestKit = std::min(bestKit, seconds(kit));
    }
    return {bestRaw, bestKit};
}

}  // namespace

int main() {
    const lmkit::Data json = makeJson(16u << 20);
    const lmkit::Data compressed = *lmkit::LFCGzipUtility::gzipData(json);
    std::size_t sink = 0;

    // Each raw call fills a fresh buffer, as the kit's calls do.
    const auto [rawGzipSeconds, kitGzipSeconds] = bestOfAlternating(
        [&] {
            std::vector<unsigned char> out;
            sink += rawGzip(json, out);
        },
        [&] { sink += lmkit::LFCGzipUtility::gzipData(json)->size(); });
    const auto [rawUngzipSeconds, kitUngzipSeconds] = bestOfAlternating(
        [&] {
            std::vector<unsigned char> out;
            sink += rawUngzip(compressed, out);
        },
        [&] { sink += lmkit::LFCGzipUtility::ungzipData(compressed)->size(); });

    const double mib = json.size() / 1048576.0;
    std::printf("input: %.1f MiB of JSON, %.2f MiB compressed (best of %d rounds)\n", mib,
                compressed.size() / 1048576.0, kRounds);
    std::printf("gzip    raw zlib %7.1f MiB/s  kit %7.1f MiB/s  ratio %.3fx (target >= 0.95x)\n",
                mib / rawGzipSeconds, mib / kitGzipSeconds, rawGzipSeconds / kitGzipSeconds);
    std::printf("ungzip  raw zlib %7.1f MiB/s  kit %7.1f MiB/s  ratio %.3fx (target >= 0.95x)\n",
                mib / rawUngzipSeconds, mib / kitUngzipSeconds,
                rawUngzipSeconds / kitUngzipSeconds);
    char measured[64];
    std::snprintf(measured, sizeof measured, "%.3fx", rawGzipSeconds / kitGzipSeconds);
    bench::result("gzip of 16 MiB of JSON against raw zlib", ">= 0.95x", measured,
                  rawGzipSeconds / kitGzipSeconds >= 0.95);
    std::snprintf(measured, sizeof measured, "%.3fx", rawUngzipSeconds / kitUngzipSeconds);
    bench::result("gunzip against raw zlib", ">= 0.95x", measured,
                  rawUngzipSeconds / kitUngzipSeconds >= 0.95);
    return sink == 0 || !bench::gAllMet ? 1 : 0;
}
