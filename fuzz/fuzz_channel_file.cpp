// A file found in the message channel's directory comes from the other process, or from anyone
// who can write there. Its name and its bytes are both untrusted: a name parses into its parts
// or is refused, a parsed name formats back to itself, and the bytes of a message file come back
// whole from the carrier's reader.
// Input: the file name up to the first NUL byte, the contents after it.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "lmkit/platform/Wormhole.hpp"
#include "platform/WormholeFileName.hpp"

namespace {

const std::filesystem::path& container() {
    static const std::filesystem::path path = [] {
        auto dir = std::filesystem::temp_directory_path() /
                   ("lmkit-fuzz-channel-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        return dir;
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const char* begin = reinterpret_cast<const char*>(bytes);
    const void* nul = std::memchr(begin, 0, size);
    const std::size_t nameSize = nul ? static_cast<const char*>(nul) - begin : size;
    const std::string name(begin, nameSize);
    const std::string contents = nul ? std::string(begin + nameSize + 1, size - nameSize - 1) : "";

    if (auto parsed = lmkit::wormhole_detail::parseMessageFileName(name)) {
        // Names carry no leading zeros of their own beyond the fixed width, so only the
        // canonical form of a name is compared.
        auto canonical = lmkit::wormhole_detail::formatMessageFileName(*parsed);
        auto again = lmkit::wormhole_detail::parseMessageFileName(canonical);
        if (!again || again->order() != parsed->order() || again->identifier != parsed->identifier)
            std::abort();
    }

    // The contents as the newest message of an identifier, written in place as another writer
    // (or a person) would.
    static lmkit::Wormhole carrier(container(), "Wormhole");
    carrier.clearAllMessageContents();
    static std::uint64_t sequence = 0;
    auto file = lmkit::wormhole_detail::formatMessageFileName({"Fuzz", ++sequence, 1, {}});
    std::ofstream(carrier.directory() / file, std::ios::binary) << contents;
    auto message = carrier.messageWithIdentifier("Fuzz");
    if (!message || std::string(message->begin(), message->end()) != contents)
        std::abort();
    return 0;
}
