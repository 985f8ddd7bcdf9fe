#pragma once

#include <map>
#include <string>

namespace lmkit::tool {

/// The choice a watch keeps from round to round. The selection may pick another node every round
/// when scores are close; a user (or a tunnel) wants one node until another is really better:
/// the choice moves only when another node beats it by more than `scoreGap` points for
/// `switchAfter` rounds in a row (1: at once).
class StickyChoice {
  public:
    struct Decision {
        std::string chosen;  // empty while nothing was ever chosen
        bool switched = false;
        std::string reason;  // why it switched
    };

    StickyChoice(long switchAfter, double scoreGap);

    /// Continues from an earlier run's choice.
    void restore(const std::string& chosen) { current_ = chosen; }

    /// The choice after a round whose selection chose `best` (empty: nothing), with every
    /// node's score (a node missing from `scores` scored 0).
    Decision update(const std::string& best, const std::map<std::string, double>& scores);

  private:
    long switchAfter_;
    double scoreGap_;
    std::string current_;
    std::string challenger_;  // the node beating the current one, and for how many rounds
    long streak_ = 0;
};

}  // namespace lmkit::tool
