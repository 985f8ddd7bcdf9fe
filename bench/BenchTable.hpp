#pragma once
// One line per goal, in a form bench/run gathers into the closing table:
//   RESULT|figure|goal|measured|pass
// and the timing and the order statistics the benchmarks share.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

inline bool gAllMet = true;

inline void result(const std::string& figure, const std::string& goal, const std::string& measured,
                   bool pass) {
    std::printf("RESULT|%s|%s|%s|%s\n", figure.c_str(), goal.c_str(), measured.c_str(),
                pass ? "pass" : "FAIL");
    std::fflush(stdout);
    gAllMet = gAllMet && pass;
}

// The shortest wall time of `rounds` runs of `f`: the run least disturbed by the rest of the
// machine.
template <class F>
double bestSeconds(int rounds, F&& f) {
    double best = 1e9;
    for (int round = 0; round < rounds; ++round) {
        auto start = std::chrono::steady_clock::now();
        f();
        std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        best = std::min(best, elapsed.count());
    }
    return best;
}

// The smallest value with at least a share `p` of `values` at or below it (nearest rank): the
// 0.99 of 200 values leaves out the two largest. NAN when there is none.
inline double percentile(std::vector<double> values, double p) {
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

inline double median(std::vector<double> values) {
    return percentile(std::move(values), 0.5);
}

}  // namespace bench
