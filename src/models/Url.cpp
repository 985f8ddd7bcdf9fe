#include "lmkit/models/Url.hpp"

#include <cctype>

namespace lmkit {

namespace {

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// Unreserved and reserved characters of a URL; everything else must arrive percent-escaped.
bool isUrlCharacter(char c) {
    if (std::isalnum(static_cast<unsigned char>(c)))
        return true;
    switch (c) {
        case '-':
        case '.':
        case '_':
        case '~':
        case ':':
        case '/':
        case '?':
        case '#':
        case '[':
        case ']':
        case '@':
        case '!':
        case '$':
        case '&':
        case '\'':
        case '(':
        case ')':
        case '*':
        case '+':
        case ',':
        case ';':
        case '=':
            return true;
        default:
            return false;
    }
}

}  // namespace

std::optional<Url> Url::fromString(std::string_view text) {
    if (text.empty())
        return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2]))
                return std::nullopt;
            i += 2;
            continue;
        }
        if (!isUrlCharacter(c))
            return std::nullopt;
    }
    return Url(std::string(text));
}

std::string Url::scheme() const {
    auto colon = text_.find(':');
    if (colon == std::string::npos || colon == 0)
        return {};
    std::string scheme;
    for (std::size_t i = 0; i < colon; ++i) {
        unsigned char c = static_cast<unsigned char>(text_[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.')
            return {};
        scheme.push_back(static_cast<char>(std::tolower(c)));
    }
    return std::isalpha(static_cast<unsigned char>(scheme[0])) ? scheme : std::string();
}

}  // namespace lmkit
