// Untrusted compressed payloads: the unlimited and the size-limited decompression must agree,
// and neither may crash, leak or loop.
#include <cstdint>
#include <cstdlib>

#include "lmkit/foundation/LFCGzipUtility.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const lmkit::Data input(bytes, bytes + size);
    constexpr std::size_t kLimit = 64 * 1024;

    const std::optional<lmkit::Data> whole = lmkit::LFCGzipUtility::ungzipData(input);
    const lmkit::UngzipResult limited = lmkit::LFCGzipUtility::ungzipData(input, kLimit);

    if (!whole) {
        if (limited.status == lmkit::UngzipResult::Status::Ok)
            std::abort();
    } else if (whole->size() <= kLimit) {
        if (limited.status != lmkit::UngzipResult::Status::Ok || limited.data != *whole)
            std::abort();
    } else if (limited.status != lmkit::UngzipResult::Status::TooLarge) {
        std::abort();
    }
    return 0;
}
