#include "platform/WormholeFileName.hpp"

#include <charconv>
#include <cstdio>

namespace lmkit::wormhole_detail {

namespace {

std::optional<std::uint64_t> parseDigits(std::string_view text) {
    if (text.empty() || text.size() > 20)
        return std::nullopt;
    std::uint64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

}  // namespace

bool isValidIdentifier(std::string_view identifier) {
    if (identifier.empty() || identifier.size() > kMaxIdentifierBytes || identifier[0] == '.')
        return false;
    return identifier.find('/') == std::string_view::npos &&
           identifier.find('\0') == std::string_view::npos;
}

std::string formatMessageFileName(const MessageFileName& file) {
    char parts[64];
    std::snprintf(parts, sizeof parts, ".%020llu-%llu",
                  static_cast<unsigned long long>(file.sequence),
                  static_cast<unsigned long long>(file.pid));
    return file.identifier + parts + std::string(kMessageSuffix);
}

std::optional<MessageFileName> parseMessageFileName(std::string_view fileName) {
    if (fileName.size() <= kMessageSuffix.size() || !fileName.ends_with(kMessageSuffix))
        return std::nullopt;
    std::string_view stem = fileName.substr(0, fileName.size() - kMessageSuffix.size());
    auto dot = stem.rfind('.');
    if (dot == std::string_view::npos)
        return std::nullopt;
    std::string_view identifier = stem.substr(0, dot);
    std::string_view stamp = stem.substr(dot + 1);
    auto dash = stamp.find('-');
    if (dash == std::string_view::npos || !isValidIdentifier(identifier))
        return std::nullopt;
    auto sequence = parseDigits(stamp.substr(0, dash));
    auto pid = parseDigits(stamp.substr(dash + 1));
    if (!sequence || !pid || *sequence > kMaxSequence)
        return std::nullopt;
    return MessageFileName{std::string(identifier), *sequence, *pid, std::string(fileName)};
}

}  // namespace lmkit::wormhole_detail
