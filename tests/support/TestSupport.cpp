#include "support/TestSupport.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace lmkit::testing {

bool waitFor(const std::function<bool()>& condition, double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lmkit-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string runCommand(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        throw std::runtime_error("popen failed: " + command);
    std::array<char, 4096> buffer;
    std::size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        output.append(buffer.data(), n);
    int rc = pclose(pipe);
    if (status)
        *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return output;
}

}  // namespace lmkit::testing
