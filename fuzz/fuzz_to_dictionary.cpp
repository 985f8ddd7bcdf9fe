// Untrusted JSON documents: toDictionary() gives an object or nil, and an object it gives
// always encodes again and reads back the same.
#include <cstdint>
#include <cstdlib>

#include "lmkit/foundation/DataJSON.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const lmkit::Data input(bytes, bytes + size);
    const auto dictionary = lmkit::jsondata::toDictionary(input);
    if (!dictionary)
        return 0;
    if (!dictionary->is_object())
        std::abort();

    const auto text = lmkit::jsondata::toJSONString(*dictionary);
    if (!text)
        std::abort();
    const auto again = lmkit::jsondata::toDictionary(lmkit::Data(text->begin(), text->end()));
    if (!again || *again != *dictionary)
        std::abort();
    return 0;
}
