#include "lmkit/netinfo/IPAddressString.hpp"

#include <vector>

namespace lmkit::ipaddress {

namespace {

/// Decodes one UTF-8 code point starting at `i` (advancing it); malformed bytes read as
/// themselves, which are never digits.
char32_t nextCodePoint(const std::string& text, size_t& i) {
    auto byte = static_cast<unsigned char>(text[i++]);
    int extra = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : byte >= 0xC0 ? 1 : 0;
    char32_t point = extra == 3   ? byte & 0x07
                     : extra == 2 ? byte & 0x0F
                     : extra == 1 ? byte & 0x1F
                                  : byte;
    for (int k = 0; k < extra && i < text.size(); ++k) {
        point = (point << 6) | (static_cast<unsigned char>(text[i++]) & 0x3F);
    }
    return point;
}

/// Unicode decimal digits (category Nd): each block of ten starts at one of these points.
bool isDecimalDigit(char32_t point) {
    static constexpr char32_t kZeros[] = {
        0x0030,  0x0660,  0x06F0,  0x07C0,  0x0966,  0x09E6,  0x0A66,  0x0AE6,  0x0B66,  0x0BE6,
        0x0C66,  0x0CE6,  0x0D66,  0x0DE6,  0x0E50,  0x0ED0,  0x0F20,  0x1040,  0x1090,  0x17E0,
        0x1810,  0x1946,  0x19D0,  0x1A80,  0x1A90,  0x1B50,  0x1BB0,  0x1C40,  0x1C50,  0xA620,
        0xA8D0,  0xA900,  0xA9D0,  0xA9F0,  0xAA50,  0xABF0,  0xFF10,  0x104A0, 0x10D30, 0x11066,
        0x110F0, 0x11136, 0x111D0, 0x112F0, 0x11450, 0x114D0, 0x11650, 0x116C0, 0x11730, 0x118E0,
        0x11950, 0x11C50, 0x11D50, 0x11DA0, 0x16A60, 0x16AC0, 0x16B50, 0x1D7CE, 0x1D7D8, 0x1D7E2,
        0x1D7EC, 0x1D7F6, 0x1E140, 0x1E2F0, 0x1E950, 0x1FBF0};
    for (char32_t zero : kZeros) {
        if (point >= zero && point < zero + 10)
            return true;
    }
    return false;
}

int hexValue(const std::string& piece) {
    int value = 0;
    for (char c : piece) {
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
        if (digit < 0)
            return 0;  // an unreadable piece reads as 0
        value = value * 16 + digit;
    }
    return value;
}

}  // namespace

bool isAllDigits(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
        if (!isDecimalDigit(nextCodePoint(text, i)))
            return false;
    }
    return true;
}

std::optional<std::string> convert2IPV6Address(const std::optional<std::string>& text) {
    if (!text)
        return std::nullopt;
    return "::FFFF:" + *text;
}

std::optional<std::string> convert2IPV4Address(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t colon; (colon = text.find(':', start)) != std::string::npos; start = colon + 1) {
        parts.push_back(text.substr(start, colon - start));
    }
    parts.push_back(text.substr(start));
    if (parts.size() < 2)
        return std::nullopt;
    std::string high = parts[parts.size() - 2];
    std::string low = parts.back();
    insertZeroIntoString(high, 4);
    insertZeroIntoString(low, 4);
    std::string joined = high + low;
    std::vector<int> bytes;
    for (size_t i = 0; i < joined.size(); i += 2)
        bytes.push_back(hexValue(joined.substr(i, 2)));
    if (bytes.size() != 4)
        return std::nullopt;
    return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
           std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
}

void insertZeroIntoString(std::string& text, size_t maxLength) {
    if (text.size() < maxLength)
        text.insert(0, maxLength - text.size(), '0');
}

std::string countryCodePresentation(const std::string& text) {
    return text.rfind('+', 0) == 0 ? text : "+" + text;
}

}  // namespace lmkit::ipaddress
