#include "lmkit/models/RegularExpression.hpp"

#include <unicode/uregex.h>
#include <unicode/ustring.h>

#include <mutex>
#include <vector>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

namespace {

// ICU counts match time in steps of its engine (about ten thousand backtracking moves each,
// well under a millisecond). A domain or URL rule needs a handful; a runaway pattern stops here.
constexpr int32_t kMatchTimeLimitSteps = 20;

struct RegexCloser {
    void operator()(URegularExpression* re) const { uregex_close(re); }
};
using RegexHandle = std::unique_ptr<URegularExpression, RegexCloser>;

// An ICU matcher holds the text and the match state, so one matcher serves one thread at a
// time. Each matcher keeps the UTF-16 buffer it matches in.
struct Matcher {
    RegexHandle regex;
    std::u16string text;
};

}  // namespace

class RegularExpression::Program {
  public:
    Program(std::string pattern, RegexHandle compiled)
        : pattern_(std::move(pattern)), compiled_(std::move(compiled)) {}

    const std::string& pattern() const { return pattern_; }

    bool find(std::string_view text) {
        std::unique_ptr<Matcher> matcher = take();
        if (!matcher)
            return false;
        bool found = findIn(*matcher, text);
        giveBack(std::move(matcher));
        return found;
    }

  private:
    // Matchers are cloned from the compiled program on demand and reused: a clone shares the
    // compiled pattern, so it costs one small allocation, and only as many exist as threads
    // ever matched at once.
    std::unique_ptr<Matcher> take() {
        {
            std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                auto matcher = std::move(idle_.back());
                idle_.pop_back();
                return matcher;
            }
        }
        UErrorCode status = U_ZERO_ERROR;
        RegexHandle clone(uregex_clone(compiled_.get(), &status));
        if (U_FAILURE(status))
            return nullptr;
        return std::make_unique<Matcher>(Matcher{std::move(clone), {}});
    }

    void giveBack(std::unique_ptr<Matcher> matcher) {
        std::lock_guard lock(mutex_);
        idle_.push_back(std::move(matcher));
    }

    bool findIn(Matcher& matcher, std::string_view text) const {
        UErrorCode status = U_ZERO_ERROR;
        int32_t length = 0;
        // Invalid UTF-8 becomes U+FFFD rather than refusing the text: a host name with a stray
        // byte is still checked against the rules.
        matcher.text.resize(text.size() + 1);
        u_strFromUTF8WithSub(reinterpret_cast<UChar*>(matcher.text.data()),
                             static_cast<int32_t>(matcher.text.size()), &length, text.data(),
                             static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
        if (U_FAILURE(status))
            return false;
        uregex_setText(matcher.regex.get(), reinterpret_cast<const UChar*>(matcher.text.data()),
                       length, &status);
        uregex_setTimeLimit(matcher.regex.get(), kMatchTimeLimitSteps, &status);
        bool found = U_SUCCESS(status) && uregex_find(matcher.regex.get(), 0, &status);
        if (status == U_REGEX_TIME_OUT || status == U_REGEX_STACK_OVERFLOW)
            log::warning("[RegularExpression] gave up matching \"" + pattern_ +
                         "\": the match took too long");
        // Leave no pointer into the buffer behind: the next user may resize it.
        UErrorCode reset = U_ZERO_ERROR;
        uregex_setText(matcher.regex.get(), u"", 0, &reset);
        return found && U_SUCCESS(status);
    }

    std::string pattern_;
    RegexHandle compiled_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Matcher>> idle_;
};

std::optional<RegularExpression> RegularExpression::compile(std::string_view pattern) {
    UErrorCode status = U_ZERO_ERROR;
    std::u16string utf16(pattern.size() + 1, u'\0');
    int32_t length = 0;
    u_strFromUTF8(reinterpret_cast<UChar*>(utf16.data()), static_cast<int32_t>(utf16.size()),
                  &length, pattern.data(), static_cast<int32_t>(pattern.size()), &status);
    UParseError where{};
    RegexHandle compiled;
    if (U_SUCCESS(status))
        compiled.reset(uregex_open(reinterpret_cast<const UChar*>(utf16.data()), length,
                                   UREGEX_CASE_INSENSITIVE, &where, &status));
    if (U_FAILURE(status) || !compiled) {
        log::warning("[RegularExpression] dropped \"" + std::string(pattern) +
                     "\": " + u_errorName(status));
        return std::nullopt;
    }
    RegularExpression expression;
    expression.program_ = std::make_shared<Program>(std::string(pattern), std::move(compiled));
    return expression;
}

const std::string& RegularExpression::pattern() const {
    static const std::string empty;
    return program_ ? program_->pattern() : empty;
}

bool RegularExpression::matchInString(const std::optional<std::string>& text) const {
    return text && matchInString(std::string_view(*text));
}

bool RegularExpression::matchInString(std::string_view text) const {
    return program_ && program_->find(text);
}

}  // namespace lmkit
