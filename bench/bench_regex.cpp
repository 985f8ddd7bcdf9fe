// The tunnel checks every host name against the service's domain rules (black list, route and
// host rules). The kit compiles those rules in the service's own dialect with ICU (and plain
// rules also with RE2, for plain texts); the baseline is RE2 alone, the engine the kit used
// before, on identical rules and host names in the same run. Goal: the kit within 2x of RE2.

#include <re2/re2.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchTable.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/RegularExpression.hpp"

namespace {

constexpr int kRules = 200;
constexpr int kHosts = 5000;
constexpr int kRounds = 7;

// Rules in the forms the service writes: anchored suffixes, alternations, optional
// sub-domains, character classes and bounded repeats.
std::vector<std::string> rules() {
    std::vector<std::string> patterns;
    for (int i = 0; i < kRules; ++i) {
        switch (i % 4) {
            case 0:
                patterns.push_back("(^|\\.)ads" + std::to_string(i) + "\\.example\\.com$");
                break;
            case 1:
                patterns.push_back("^(www\\.)?tracker-" + std::to_string(i) + "\\.(net|org)$");
                break;
            case 2:
                patterns.push_back("cdn[0-9]{1,3}\\.game" + std::to_string(i) + "\\.cn$");
                break;
            default:
                patterns.push_back("^[a-z0-9-]+\\.metrics" + std::to_string(i) + "\\.io$");
                break;
        }
    }
    return patterns;
}

std::vector<std::string> hosts() {
    std::vector<std::string> names;
    for (int i = 0; i < kHosts; ++i) {
        int n = i % (kRules * 2);
        switch (i % 5) {
            case 0:
                names.push_back("img.ads" + std::to_string(n) + ".example.com");
                break;
            case 1:
                names.push_back("www.tracker-" + std::to_string(n) + ".net");
                break;
            case 2:
                names.push_back("cdn" + std::to_string(i % 999) + ".game" + std::to_string(n) +
                                ".cn");
                break;
            case 3:
                names.push_back("login.battle-server-" + std::to_string(i) + ".example.org");
                break;
            default:
                names.push_back("api-" + std::to_string(i) + ".metrics" + std::to_string(n) +
                                ".io");
                break;
        }
    }
    return names;
}

}  // namespace

int main() {
    lmkit::log::setStderrLevel(0);
    const auto patterns = rules();
    const auto names = hosts();

    std::vector<lmkit::RegularExpression> kit;
    std::vector<std::unique_ptr<RE2>> baseline;
    RE2::Options options;
    options.set_case_sensitive(false);
    for (const auto& pattern : patterns) {
        kit.push_back(*lmkit::RegularExpression::compile(pattern));
        baseline.push_back(std::make_unique<RE2>(pattern, options));
    }

    // The black-list check: the first rule that matches decides.
    int kitMatches = 0, baselineMatches = 0;
    double kitSeconds = bench::bestSeconds(kRounds, [&] {
        kitMatches = 0;
        for (const auto& name : names)
            kitMatches += std::any_of(kit.begin(), kit.end(),
                                      [&](const auto& re) { return re.matchInString(name); });
    });
    double baselineSeconds = bench::bestSeconds(kRounds, [&] {
        baselineMatches = 0;
        for (const auto& name : names)
            baselineMatches += std::any_of(baseline.begin(), baseline.end(), [&](const auto& re) {
                return RE2::PartialMatch(name, *re);
            });
    });
    if (kitMatches != baselineMatches || kitMatches == 0) {
        std::fprintf(stderr, "the engines disagree: %d against %d matches\n", kitMatches,
                     baselineMatches);
        return 1;
    }
    const double checks = double(kRules) * kHosts;
    std::printf("%d host names against %d rules, %d matched: kit %.1f ms, RE2 %.1f ms\n", kHosts,
                kRules, kitMatches, kitSeconds * 1e3, baselineSeconds * 1e3);
    std::printf("per rule check: kit %.0f ns, RE2 %.0f ns\n", kitSeconds / checks * 1e9,
                baselineSeconds / checks * 1e9);
    char measured[64];
    std::snprintf(measured, sizeof measured, "%.2fx (RE2 %.1f ms)", kitSeconds / baselineSeconds,
                  baselineSeconds * 1e3);
    bench::result("domain rules matched by the kit against RE2 alone", "<= 2x", measured,
                  kitSeconds / baselineSeconds <= 2.0);
    return !bench::gAllMet;
}
