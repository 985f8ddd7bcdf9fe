#include "StickyChoice.hpp"

#include <algorithm>

#include <fmt/format.h>

namespace lmkit::tool {

namespace {
double scoreOf(const std::map<std::string, double>& scores, const std::string& node) {
    auto found = scores.find(node);
    return found == scores.end() ? 0 : found->second;
}
}  // namespace

StickyChoice::StickyChoice(long switchAfter, double scoreGap)
    : switchAfter_(std::max(1L, switchAfter)), scoreGap_(std::max(0.0, scoreGap)) {}

StickyChoice::Decision StickyChoice::update(const std::string& best,
                                            const std::map<std::string, double>& scores) {
    // A choice no longer among the nodes (a restart with other targets) is no choice.
    if (!current_.empty() && scores.count(current_) == 0)
        current_.clear();
    if (current_.empty()) {
        if (best.empty())
            return {};
        current_ = best;
        return {current_, true, fmt::format("first choice, scored {:.1f}", scoreOf(scores, best))};
    }
    const double held = scoreOf(scores, current_);
    const double rival = scoreOf(scores, best);
    if (best.empty() || best == current_ || !(rival > held + scoreGap_)) {
        challenger_.clear();
        streak_ = 0;
        return {current_, false, {}};
    }
    if (best == challenger_) {
        ++streak_;
    } else {
        challenger_ = best;
        streak_ = 1;
    }
    if (streak_ < switchAfter_)
        return {current_, false, {}};
    std::string reason = held == 0
                             ? fmt::format("{} scored 0 (lost or unusable) and {} scored {:.1f}",
                                           current_, best, rival)
                             : fmt::format("{} beat {} by {:.1f} points ({:.1f} against {:.1f})",
                                           best, current_, rival - held, rival, held);
    if (switchAfter_ > 1)
        reason += fmt::format(" for {} rounds", streak_);
    current_ = best;
    challenger_.clear();
    streak_ = 0;
    return {current_, true, reason};
}

}  // namespace lmkit::tool
