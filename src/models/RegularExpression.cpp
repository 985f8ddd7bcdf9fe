#include "lmkit/models/RegularExpression.hpp"

#include <re2/re2.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "lmkit/foundation/Log.hpp"
#include "models/IcuLibrary.hpp"

namespace lmkit {

// Named, not anonymous: the compiled program, a class with external linkage, holds these.
namespace regex_detail {

struct RegexCloser {
    const IcuLibrary* icu = nullptr;
    void operator()(URegularExpression* re) const { icu->uregex_close(re); }
};
using RegexHandle = std::unique_ptr<URegularExpression, RegexCloser>;

// An ICU matcher holds the text and the match state, so one matcher serves one thread at a
// time. Each matcher keeps the UTF-16 buffer it matches in.
struct Matcher {
    RegexHandle regex;
    std::u16string text;
};

}  // namespace regex_detail
using regex_detail::Matcher;
using regex_detail::RegexCloser;
using regex_detail::RegexHandle;

namespace {

// ICU counts match time in steps of its engine (about ten thousand backtracking moves each,
// well under a millisecond). A domain or URL rule needs a handful; a runaway pattern stops here.
constexpr int32_t kMatchTimeLimitSteps = 20;

// Most service rules are plain: ASCII literals, dots, classes without nesting, groups,
// alternation, the usual repetitions and anchors, \d \w \s \b. For such a pattern and a text of
// ASCII without line terminators, RE2 answers "is there a match" exactly as ICU does (the two
// dialects differ only outside that ground: Unicode classes and case folding, line terminators
// before $, nested and combined sets, back-references, look-around), and 3-4 times faster. So
// such rules also get an RE2 program, used for such texts; everything else goes to ICU.
bool isPlainPattern(std::string_view pattern) {
    static constexpr std::string_view kPlainEscapes =
        ".\\-/^$*+?()[]{}|dDwWsSbBAztnr:_@#&=,!%'\"~ ";
    bool inClass = false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const unsigned char c = pattern[i];
        if (c >= 0x80 || c < 0x20)
            return false;
        if (c == '\\') {
            if (++i == pattern.size() || kPlainEscapes.find(pattern[i]) == std::string_view::npos)
                return false;
            continue;
        }
        if (inClass) {
            if (c == '[' || (c == '&' && i + 1 < pattern.size() && pattern[i + 1] == '&') ||
                (c == '-' && i + 1 < pattern.size() && pattern[i + 1] == '-'))
                return false;
            if (c == ']')
                inClass = false;
            continue;
        }
        if (c == '[') {
            inClass = true;
            // A leading ] or ^] is a literal in one dialect and not in the other.
            if (i + 1 < pattern.size() && pattern[i + 1] == '^')
                ++i;
            if (i + 1 < pattern.size() && pattern[i + 1] == ']')
                return false;
        } else if (c == '(' && i + 1 < pattern.size() && pattern[i + 1] == '?') {
            if (i + 2 >= pattern.size() || pattern[i + 2] != ':')
                return false;
        } else if (c == '{' &&
                   (i + 1 == pattern.size() || pattern[i + 1] < '0' || pattern[i + 1] > '9')) {
            return false;
        }
    }
    return !inClass;
}

bool isPlainText(std::string_view text) {
    for (unsigned char c : text)
        if (c >= 0x80 || (c >= 0x0A && c <= 0x0D))
            return false;
    return true;
}

}  // namespace

class RegularExpression::Program {
  public:
    Program(const IcuLibrary& icu, std::string pattern, RegexHandle compiled)
        : icu_(icu), pattern_(std::move(pattern)), compiled_(std::move(compiled)) {
        if (isPlainPattern(pattern_)) {
            RE2::Options options;
            options.set_case_sensitive(false);
            options.set_log_errors(false);
            auto plain = std::make_unique<RE2>(pattern_, options);
            if (plain->ok())
                plain_ = std::move(plain);
        }
    }
    ~Program() { delete spare_.load(); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    const std::string& pattern() const { return pattern_; }

    bool find(std::string_view text) {
        if (plain_ && isPlainText(text))
            return RE2::PartialMatch(re2::StringPiece(text.data(), text.size()), *plain_);
        std::unique_ptr<Matcher> matcher = take();
        if (!matcher)
            return false;
        bool found = findIn(*matcher, text);
        giveBack(std::move(matcher));
        return found;
    }

  private:
    // Matchers are cloned from the compiled program on demand and reused: a clone shares the
    // compiled pattern, so it costs one small allocation. One idle matcher waits in a lock-free
    // slot (the common case: one thread matches at a time); others wait in the list.
    std::unique_ptr<Matcher> take() {
        if (Matcher* ready = spare_.exchange(nullptr, std::memory_order_acquire))
            return std::unique_ptr<Matcher>(ready);
        {
            std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                auto matcher = std::move(idle_.back());
                idle_.pop_back();
                return matcher;
            }
        }
        UErrorCode status = U_ZERO_ERROR;
        RegexHandle clone(icu_.uregex_clone(compiled_.get(), &status), RegexCloser{&icu_});
        icu_.uregex_setTimeLimit(clone.get(), kMatchTimeLimitSteps, &status);
        if (U_FAILURE(status))
            return nullptr;
        return std::make_unique<Matcher>(Matcher{std::move(clone), {}});
    }

    void giveBack(std::unique_ptr<Matcher> matcher) {
        Matcher* expected = nullptr;
        if (spare_.compare_exchange_strong(expected, matcher.get(), std::memory_order_release))
            matcher.release();
        else {
            std::lock_guard lock(mutex_);
            idle_.push_back(std::move(matcher));
        }
    }

    bool findIn(Matcher& matcher, std::string_view text) const {
        UErrorCode status = U_ZERO_ERROR;
        int32_t length = 0;
        // Invalid UTF-8 becomes U+FFFD rather than refusing the text: a host name with a stray
        // byte is still checked against the rules.
        if (matcher.text.size() < text.size() + 1)
            matcher.text.resize(text.size() + 1);
        icu_.u_strFromUTF8WithSub(reinterpret_cast<UChar*>(matcher.text.data()),
                                  static_cast<int32_t>(matcher.text.size()), &length, text.data(),
                                  static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
        if (U_FAILURE(status))
            return false;
        // The matcher keeps a pointer into the buffer until the next text replaces it; ICU
        // never reads the old text when it does.
        icu_.uregex_setText(matcher.regex.get(),
                            reinterpret_cast<const UChar*>(matcher.text.data()), length, &status);
        bool found = U_SUCCESS(status) && icu_.uregex_find(matcher.regex.get(), 0, &status);
        if (status == U_REGEX_TIME_OUT || status == U_REGEX_STACK_OVERFLOW)
            log::warning("[RegularExpression] gave up matching \"" + pattern_ +
                         "\": the match took too long");
        return found && U_SUCCESS(status);
    }

    const IcuLibrary& icu_;
    std::string pattern_;
    RegexHandle compiled_;
    std::unique_ptr<const RE2> plain_;  // the same rule for plain texts, when it is plain
    std::atomic<Matcher*> spare_{nullptr};
    std::mutex mutex_;
    std::vector<std::unique_ptr<Matcher>> idle_;
};

std::optional<RegularExpression> RegularExpression::compile(std::string_view pattern) {
    std::string missing;
    const IcuLibrary* icu = IcuLibrary::load(missing);
    if (!icu) {
        log::warning("[RegularExpression] dropped \"" + std::string(pattern) + "\": " + missing);
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::u16string utf16(pattern.size() + 1, u'\0');
    int32_t length = 0;
    icu->u_strFromUTF8(reinterpret_cast<UChar*>(utf16.data()), static_cast<int32_t>(utf16.size()),
                       &length, pattern.data(), static_cast<int32_t>(pattern.size()), &status);
    UParseError where{};
    RegexHandle compiled(nullptr, RegexCloser{icu});
    if (U_SUCCESS(status))
        compiled.reset(icu->uregex_open(reinterpret_cast<const UChar*>(utf16.data()), length,
                                        UREGEX_CASE_INSENSITIVE, &where, &status));
    if (U_FAILURE(status) || !compiled) {
        log::warning("[RegularExpression] dropped \"" + std::string(pattern) +
                     "\": " + icu->u_errorName(status));
        return std::nullopt;
    }
    RegularExpression expression;
    expression.program_ =
        std::make_shared<Program>(*icu, std::string(pattern), std::move(compiled));
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
