#include "lmkit/nodes/ProbePacket.hpp"

#include <sys/socket.h>

#include <charconv>
#include <cmath>

#include "lmkit/netinfo/IPAddressString.hpp"

namespace lmkit::probe {

std::string constructKeyWithHost(std::string_view host, long port) {
    std::string key;
    assignKeyWithHost(key, host, port);
    return key;
}

void assignKeyWithHost(std::string& key, std::string_view host, long port) {
    key.assign(host);
    if (port != 0) {
        char digits[24];
        auto end = std::to_chars(digits, digits + sizeof digits, port).ptr;
        key += ':';
        key.append(digits, end);
    }
}

std::string makeProbePayload(std::string_view prefix, double firstPacketTimeStamp,
                             double nowMilliseconds) {
    auto stamp = static_cast<std::int64_t>(nowMilliseconds - firstPacketTimeStamp);
    std::string payload(prefix);
    payload += std::to_string(stamp);
    return payload;
}

bool isAllDigits(std::string_view text) {
    if (text.empty())
        return false;
    for (char c : text)
        if (c < '0' || c > '9')
            return false;
    return true;
}

double leadingDoubleValue(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                               text[i] == '\r' || text[i] == '\f' || text[i] == '\v'))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Only plain decimal notation counts; "inf", "nan" and hexadecimal read as 0.
    if (i >= text.size() || !((text[i] >= '0' && text[i] <= '9') || text[i] == '.'))
        return 0;
    double value = 0;
    auto [end, ec] = std::from_chars(text.data() + i, text.data() + text.size(), value,
                                     std::chars_format::general);
    if (ec == std::errc::result_out_of_range)
        return 0;
    if (ec != std::errc() || !std::isfinite(value))
        return 0;
    (void)end;
    return negative ? -value : value;
}

bool isValidUtf8(std::string_view bytes) {
    std::size_t i = 0;
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t n = bytes.size();
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        std::uint32_t point = 0;
        if ((c & 0xE0) == 0xC0) {
            length = 2;
            point = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
            point = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
            point = c & 0x07;
        } else {
            return false;
        }
        if (i + length > n)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((s[i + k] & 0xC0) != 0x80)
                return false;
            point = (point << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and points beyond the Unicode range are not UTF-8.
        if ((length == 2 && point < 0x80) || (length == 3 && point < 0x800) ||
            (length == 4 && point < 0x10000) || point > 0x10FFFF ||
            (point >= 0xD800 && point <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

namespace {

std::size_t characterCount(std::string_view utf8) {
    std::size_t count = 0;
    for (unsigned char c : utf8)
        if ((c & 0xC0) != 0x80)
            ++count;
    return count;
}

}  // namespace

ProbeReply parseProbeReply(const std::uint8_t* data, std::size_t size, std::string_view prefix) {
    ProbeReply reply;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (bytes.empty() || !isValidUtf8(bytes))
        return reply;
    reply.text.assign(bytes);
    std::string_view rest = bytes;
    if (prefix.empty()) {
        if (!isAllDigits(rest)) {
            reply.status = ProbeReply::Status::InvalidPacket;
            return reply;
        }
    } else if (characterCount(rest) > characterCount(prefix)) {
        // Lengths count characters, so a multi-byte prefix drops as many characters (not bytes).
        std::size_t offset = 0;
        for (std::size_t seen = characterCount(prefix); seen > 0 && offset < rest.size(); --seen) {
            ++offset;
            while (offset < rest.size() &&
                   (static_cast<unsigned char>(rest[offset]) & 0xC0) == 0x80)
                ++offset;
        }
        rest.remove_prefix(offset);
    }
    double stamp = leadingDoubleValue(rest);
    if (stamp < 0) {
        reply.status = ProbeReply::Status::InvalidTimestamp;
        return reply;
    }
    reply.stamp = stamp;
    reply.status = ProbeReply::Status::Accepted;
    return reply;
}

ReplyDecision decideProbeReply(const std::uint8_t* data, std::size_t size, std::string_view prefix,
                               double firstPacketTimeStamp, double nowMilliseconds,
                               const std::string& sourceHost, long sourcePort, int family) {
    ReplyDecision decision;
    auto reply = parseProbeReply(data, size, prefix);
    decision.text = std::move(reply.text);
    switch (reply.status) {
        case ProbeReply::Status::Ignored:
            return decision;
        case ProbeReply::Status::InvalidPacket:
            decision.action = ReplyDecision::Action::InvalidPacket;
            return decision;
        case ProbeReply::Status::InvalidTimestamp:
            decision.action = ReplyDecision::Action::InvalidTimestamp;
            return decision;
        case ProbeReply::Status::Accepted:
            break;
    }
    double delay = nowMilliseconds - (reply.stamp + firstPacketTimeStamp);
    // A negative delay is a stamp of a later run or a clock step; a stamp so large that the
    // difference is no number at all is neither a delay.
    if (!(delay >= 0) || !std::isfinite(delay))
        return decision;
    if (sourceHost.empty() || sourcePort == 0)
        return decision;
    decision.action = ReplyDecision::Action::Record;
    decision.delay = delay;
    decision.port = sourcePort;
    decision.host = sourceHost;
    decision.sourceHost = sourceHost;
    if (family == AF_INET6) {
        decision.fromIPv6 = true;
        if (auto v4 = ipaddress::convert2IPV4Address(sourceHost))
            decision.host = std::move(*v4);
    }
    return decision;
}

}  // namespace lmkit::probe
