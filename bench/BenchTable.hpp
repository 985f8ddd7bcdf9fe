#pragma once
// One line per goal, in a form bench/run gathers into the closing table:
//   RESULT|figure|goal|measured|pass
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

}  // namespace bench
