#pragma once
// Peak resident memory of a tool run by a benchmark. The rusage of a child cannot be used: a
// child forked (or vforked) from the benchmark holds the benchmark's pages until it execs, and
// exec keeps their high-water mark as the child's own. So the tool's memory map is read from
// /proc while it runs, once the child runs the tool's image.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace bench {

// The high-water mark of the process's resident memory (VmHWM), in kB; 0 once it is gone.
inline long highWaterKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

// Waits for `child`, which execs `tool`, and gives the tool's peak resident memory in MB;
// `status` receives its wait status.
inline double childPeakMegabytes(pid_t child, const std::string& tool, int& status) {
    const std::string self = "/proc/" + std::to_string(child) + "/exe";
    for (int i = 0; i < 1000; ++i) {
        std::error_code ec;
        if (std::filesystem::equivalent(std::filesystem::read_symlink(self, ec), tool, ec))
            break;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    long peak = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        peak = std::max(peak, highWaterKilobytes(child));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return static_cast<double>(peak) / 1024.0;
}

}  // namespace bench
