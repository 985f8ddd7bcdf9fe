// Untrusted service documents: every record type of the kit decodes arbitrary JSON without
// crashing, and a record that decoded encodes and decodes again to the same document.
#include <cstdint>
#include <cstdlib>

#include "lmkit/models/RecordRegistry.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    auto json = lmkit::Json::parse(bytes, bytes + size, nullptr, false);
    if (json.is_discarded())
        return 0;
    for (const auto& type : lmkit::recordTypes()) {
        lmkit::Error error;
        auto record = type.decode(json, &error);
        if (!record)
            continue;
        auto encoded = record->toJSONDictionary();
        if (!encoded)
            std::abort();
        auto again = type.decode(*encoded, &error);
        if (!again || again->toJSONDictionary() != encoded)
            std::abort();
    }
    return 0;
}
