// Untrusted base64 text (sealed settings, service payloads): decoding any text gives nil or bytes
// that encode back to the same text, and any bytes survive an encode and a decode.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "lmkit/foundation/Data.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    if (auto decoded = lmkit::bytes::base64Decoded(text)) {
        // Strict decoding takes canonical text only, so the way back is the same text.
        if (lmkit::bytes::base64EncodedString(*decoded) != text)
            std::abort();
    }
    const lmkit::Data data(bytes, bytes + size);
    auto back = lmkit::bytes::base64Decoded(lmkit::bytes::base64EncodedString(data));
    if (!back || *back != data)
        std::abort();
    return 0;
}
