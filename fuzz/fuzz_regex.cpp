// Service-delivered regular expressions (route domains, ban lists): any pattern compiles or is
// refused, and a compiled one matches any text without crashing or running away.
// Input: the pattern up to the first NUL byte, the text after it.
#include <cstdint>
#include <cstring>
#include <string_view>

#include "lmkit/models/RegularExpression.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const char* begin = reinterpret_cast<const char*>(bytes);
    const void* nul = std::memchr(begin, 0, size);
    const std::size_t patternSize = nul ? static_cast<const char*>(nul) - begin : size;
    const std::string_view pattern(begin, patternSize);
    const std::string_view text =
        nul ? std::string_view(begin + patternSize + 1, size - patternSize - 1) : pattern;
    if (auto expression = lmkit::RegularExpression::compile(pattern)) {
        (void)expression->matchInString(text);
        (void)expression->matchInString(std::string_view());
    }
    return 0;
}
