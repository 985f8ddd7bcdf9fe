#pragma once

#include <cstddef>
#include <optional>

#include "lmkit/foundation/Data.hpp"

namespace lmkit {

/// What a size-limited decompression gives: the data, or why there is none. The default is a
/// failure, so an unset result never passes for success.
struct UngzipResult {
    enum class Status { Corrupt, TooLarge, Ok };
    Status status = Status::Corrupt;
    Data data;  // the decompressed bytes when status is Ok

    explicit operator bool() const { return status == Status::Ok; }
};

/// gzip compression and decompression of whole buffers in memory.
class LFCGzipUtility {
  public:
    /// gzip stream (default level, 32 KiB window) of `data`. An empty input, or input that
    /// does not fit the single output buffer sized up front, gives nil; failures are logged.
    static std::optional<Data> gzipData(const Data& data);

    /// Decompresses a gzip or zlib stream (the header is detected). An empty input is given
    /// back as it is; a truncated or corrupt stream gives nil.
    static std::optional<Data> ungzipData(const Data& data);

    /// As above, but refuses to produce more than `maxBytes`, so that a small hostile input
    /// cannot make the output grow without bound.
    static UngzipResult ungzipData(const Data& data, std::size_t maxBytes);
};

}  // namespace lmkit
