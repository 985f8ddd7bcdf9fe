#pragma once
// One line per goal, in a form bench/run gathers into the closing table:
//   RESULT|figure|goal|measured|pass
// and the timing the benchmarks share.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

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

}  // namespace bench
