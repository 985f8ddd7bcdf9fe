#include "support/TestSupport.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "lmkit/testbed/EchoServer.hpp"

extern char** environ;

namespace lmkit::testing {

EchoFaults delayed(double ms, double loss) {
    EchoFaults faults;
    faults.delaySeconds = ms / 1000;
    faults.loss = loss;
    return faults;
}

std::unique_ptr<EchoServer> echoesOnOnePort(const std::vector<EchoFaults>& faults,
                                            std::uint64_t seed, std::uint16_t& port,
                                            const std::string& host) {
    return EchoServer::startOnOnePort(
        [&](std::uint16_t chosen) {
            std::vector<EchoEndpointConfig> endpoints;
            for (std::size_t i = 0; i < faults.size(); ++i)
                endpoints.push_back(
                    {host.empty() ? "127.0.0." + std::to_string(i + 1) : host, chosen, faults[i]});
            return endpoints;
        },
        seed, port);
}

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

bool sh(const std::string& command) {
    int status = -1;
    runCommand(command + " 2>&1", &status);
    return status == 0;
}

pid_t spawnSelf(const std::string& variable, const std::string& value) {
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e)
        environment.emplace_back(*e);
    environment.push_back(variable + "=" + value);
    std::vector<char*> envp;
    for (auto& e : environment)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char* argv[] = {self, nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv, envp.data()) != 0)
        return -1;
    return pid;
}

std::optional<std::vector<std::string>> childRequest(const std::string& variable) {
    const char* request = std::getenv(variable.c_str());
    if (!request)
        return std::nullopt;
    std::vector<std::string> parts;
    std::stringstream stream(request);
    for (std::string part; std::getline(stream, part, '|');)
        parts.push_back(part);
    return parts;
}

int waitExit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace lmkit::testing
