#include "lmkit/foundation/Data.hpp"

#include <array>

namespace lmkit::bytes {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Value of each base64 character, -1 for characters outside the alphabet.
constexpr std::array<int, 256> makeDecodeTable() {
    std::array<int, 256> table{};
    for (auto& value : table)
        value = -1;
    for (int i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(kAlphabet[i])] = i;
    return table;
}
constexpr auto kDecodeTable = makeDecodeTable();

// Length of the valid UTF-8 sequence starting at `p`, 0 when it is not one.
std::size_t utf8SequenceLength(const std::uint8_t* p, std::size_t available) {
    const std::uint8_t lead = p[0];
    if (lead < 0x80)
        return 1;
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, codePoint = lead & 0x07;
    } else {
        return 0;
    }
    if (available < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        codePoint = (codePoint << 6) | (p[i] & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static constexpr std::uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kMinimum[length])
        return 0;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF)
        return 0;
    if (codePoint > 0x10FFFF)
        return 0;
    return length;
}

}  // namespace

Data toData(std::string_view text) {
    return Data(text.begin(), text.end());
}

std::optional<std::string> UTF8String(const Data& data) {
    for (std::size_t i = 0; i < data.size();) {
        const std::size_t length = utf8SequenceLength(data.data() + i, data.size() - i);
        if (length == 0)
            return std::nullopt;
        i += length;
    }
    return std::string(data.begin(), data.end());
}

std::string base64EncodedString(const Data& data) {
    std::string text;
    text.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= data.size(); i += 3) {
        const std::uint32_t triple = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        text += kAlphabet[(triple >> 18) & 63];
        text += kAlphabet[(triple >> 12) & 63];
        text += kAlphabet[(triple >> 6) & 63];
        text += kAlphabet[triple & 63];
    }
    const std::size_t rest = data.size() - i;
    if (rest > 0) {
        const std::uint32_t triple = (data[i] << 16) | (rest == 2 ? data[i + 1] << 8 : 0);
        text += kAlphabet[(triple >> 18) & 63];
        text += kAlphabet[(triple >> 12) & 63];
        text += rest == 2 ? kAlphabet[(triple >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

std::optional<Data> base64Decoded(std::string_view text) {
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=')
        ++padding;
    if (text.size() >= 2 && text[text.size() - 2] == '=')
        ++padding;
    Data data;
    data.reserve(text.size() / 4 * 3);
    const std::size_t body = text.size() - padding;
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (std::size_t i = 0; i < body; ++i) {
        const int value = kDecodeTable[static_cast<unsigned char>(text[i])];
        if (value < 0)
            return std::nullopt;
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            data.push_back(static_cast<std::uint8_t>(accumulator >> bits));
            accumulator &= (1u << bits) - 1;
        }
    }
    // The bits left over by padded input must be zero, or two texts would decode alike.
    if (accumulator != 0)
        return std::nullopt;
    return data;
}

}  // namespace lmkit::bytes
