// Untrusted sealed records: decrypted() over any bytes must give nil or a value, never crash;
// and whatever encrypted() seals, decrypted() opens with the same key.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lmkit/foundation/DataCrypto.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    // First byte: key length; then the key text; the rest is the buffer.
    if (size == 0)
        return 0;
    const std::size_t keyLength = std::min<std::size_t>(bytes[0], size - 1);
    const std::string key(reinterpret_cast<const char*>(bytes + 1), keyLength);
    const lmkit::Data data(bytes + 1 + keyLength, bytes + size);

    (void)lmkit::crypto::decrypted(data, key);

    const std::optional<lmkit::Data> sealed = lmkit::crypto::encrypted(data, key);
    if (!sealed)
        std::abort();
    const std::optional<lmkit::Data> opened = lmkit::crypto::decrypted(*sealed, key);
    if (!opened || *opened != data)
        std::abort();
    return 0;
}
