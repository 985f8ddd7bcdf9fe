#include "lmkit/models/RegularExpression.hpp"

#include <re2/re2.h>

namespace lmkit {

std::optional<RegularExpression> RegularExpression::compile(std::string_view pattern) {
    RE2::Options options;
    options.set_case_sensitive(false);
    options.set_log_errors(false);
    auto re =
        std::make_shared<const RE2>(re2::StringPiece(pattern.data(), pattern.size()), options);
    if (!re->ok())
        return std::nullopt;
    RegularExpression expression;
    expression.re_ = std::move(re);
    return expression;
}

const std::string& RegularExpression::pattern() const {
    static const std::string empty;
    return re_ ? re_->pattern() : empty;
}

bool RegularExpression::matchInString(const std::optional<std::string>& text) const {
    return text && matchInString(std::string_view(*text));
}

bool RegularExpression::matchInString(std::string_view text) const {
    return re_ && RE2::PartialMatch(re2::StringPiece(text.data(), text.size()), *re_);
}

}  // namespace lmkit
