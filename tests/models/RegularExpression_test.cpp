#include "lmkit/models/RegularExpression.hpp"

#include <gtest/gtest.h>
#include <unicode/uregex.h>

#include <atomic>
#include <optional>
#include <random>
#include <thread>

namespace lmkit {
namespace {

TEST(RegularExpression, ServiceRulesCompileInTheirOwnDialect) {
    // Look-around, \Z, named groups and wide bounds: the rules the service writes.
    auto notWww = RegularExpression::compile(R"((?<!www)\.example\.com\Z)");
    ASSERT_TRUE(notWww);
    EXPECT_TRUE(notWww->matchInString("cdn.EXAMPLE.com"));
    EXPECT_FALSE(notWww->matchInString("www.example.com"));
    auto named = RegularExpression::compile(R"(^(?<sub>[a-z]{2,1001})\.ads\.(?=net$))");
    ASSERT_TRUE(named);
    EXPECT_TRUE(named->matchInString("tr.ads.net"));
    EXPECT_FALSE(named->matchInString("tr.ads.org"));
    // Non-ASCII text and invalid UTF-8 are matched, not refused.
    auto accented = RegularExpression::compile("café");
    EXPECT_TRUE(accented->matchInString("CAFÉ.example"));
    EXPECT_TRUE(RegularExpression::compile("x")->matchInString("\xff\xfex"));
    // One expression used from several threads at once.
    auto rule = *RegularExpression::compile(R"((^|\.)ads\d+\.example\.com$)");
    std::atomic<int> matched{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i)
                matched +=
                    rule.matchInString("img.ads" + std::to_string(i * 4 + t) + ".example.com");
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(matched, 2000);
}

// What ICU alone answers: the reference for the rules the kit also hands to RE2. Nil when ICU
// gives up on the match.
std::optional<bool> icuFinds(const std::string& pattern, const std::string& text) {
    UErrorCode status = U_ZERO_ERROR;
    URegularExpression* re =
        uregex_openC(pattern.c_str(), UREGEX_CASE_INSENSITIVE, nullptr, &status);
    std::u16string wide(text.begin(), text.end());
    uregex_setText(re, reinterpret_cast<const UChar*>(wide.data()), wide.size(), &status);
    uregex_setTimeLimit(re, 20, &status);
    bool found = uregex_find(re, 0, &status);
    uregex_close(re);
    if (U_FAILURE(status))
        return std::nullopt;
    return found;
}

TEST(RegularExpression, PlainRulesAnswerAsICUDoes) {
    // Random plain patterns over a small alphabet against random ASCII texts: whichever engine
    // the kit uses, the answer is ICU's.
    const std::vector<std::string> atoms = {
        "a",    "B",     "c",      ".",   "\\.", "\\d", "\\w", "\\s", "[a-c]", "[^a]", "[^A-Z0-9]",
        "[.-]", "(a|b)", "(?:ab)", "\\b", "^",   "$",   "-",   "1",   " ",     "\\A",  "\\z"};
    const std::vector<std::string> repeats = {"", "", "*", "+", "?", "{2}", "{1,3}", "*?"};
    const std::string alphabet = "aAbBcC1 .-_zZ\t";
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        std::string pattern;
        for (int n = random() % 5 + 1; n > 0; --n)
            pattern += atoms[random() % atoms.size()] + repeats[random() % repeats.size()];
        auto re = RegularExpression::compile(pattern);
        if (!re)
            continue;
        for (int k = 0; k < 8; ++k) {
            std::string text;
            for (int n = random() % 8; n > 0; --n)
                text += alphabet[random() % alphabet.size()];
            auto reference = icuFinds(pattern, text);
            if (!reference)
                continue;
            ASSERT_EQ(re->matchInString(text), *reference)
                << "pattern \"" << pattern << "\" text \"" << text << "\"";
        }
    }
}

}  // namespace
}  // namespace lmkit
