// Untrusted service documents: every record type of the kit decodes arbitrary JSON without
// crashing, a record that decoded encodes and decodes again to the same document, and decoding
// the text as it is parsed gives what decoding the parsed document gives.
#include <cstdint>
#include <cstdlib>

#include "lmkit/models/RecordRegistry.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    auto json = lmkit::Json::parse(bytes, bytes + size, nullptr, false);
    if (json.is_discarded())
        return 0;
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    for (const auto& type : lmkit::recordTypes()) {
        lmkit::Error error;
        auto record = type.decode(json, &error);
        auto streamed = type.decodeText(text, &error, nullptr);
        if (bool(record) != bool(streamed))
            std::abort();
        if (!record)
            continue;
        auto encoded = record->toJSONDictionary();
        if (!encoded || streamed->toJSONDictionary() != encoded)
            std::abort();
        auto again = type.decode(*encoded, &error);
        if (!again || again->toJSONDictionary() != encoded)
            std::abort();
    }
    return 0;
}
