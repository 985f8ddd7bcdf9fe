#include "ByteCount.hpp"

#include <charconv>
#include <limits>

#include <fmt/format.h>

#include "Command.hpp"

namespace lmkit::tool {

std::uint64_t parseByteCount(const std::string& option, const std::string& text) {
    constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();
    std::string_view digits = text;
    unsigned shift = 0;
    if (!digits.empty()) {
        switch (digits.back()) {
            case 'K':
            case 'k':
                shift = 10;
                break;
            case 'M':
                shift = 20;
                break;
            case 'G':
                shift = 30;
                break;
        }
        if (shift != 0)
            digits.remove_suffix(1);
    }
    std::uint64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || end != digits.data() + digits.size() ||
        (ec != std::errc() && ec != std::errc::result_out_of_range))
        throw Failure(
            fmt::format("{}: '{}' is not a byte count (digits, optionally followed by K, M or G)",
                        option, text));
    if (ec == std::errc::result_out_of_range || value > (kMax >> shift))
        throw Failure(fmt::format("{}: '{}' is out of range (0 to {} bytes)", option, text, kMax));
    return value << shift;
}

}  // namespace lmkit::tool
