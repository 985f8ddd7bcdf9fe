#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace lmkit {
struct EchoFaults;
class EchoServer;
}  // namespace lmkit

namespace lmkit::testing {

/// An echo endpoint's faults: it answers after `ms` milliseconds and drops the share `loss` of
/// requests.
EchoFaults delayed(double ms, double loss = 0);

/// Echo endpoints, one per entry of `faults`, at 127.0.0.1, 127.0.0.2, ... (or all at `host`)
/// on one free port, which `port` receives: a selector probes every server on the same port and
/// tells them apart by address. Nil when no port could be had.
std::unique_ptr<EchoServer> echoesOnOnePort(const std::vector<EchoFaults>& faults,
                                            std::uint64_t seed, std::uint16_t& port,
                                            const std::string& host = "");

/// Polls `condition` until it holds or `seconds` pass; true when it held. Tests wait for the
/// event with a deadline instead of sleeping for a guessed time.
bool waitFor(const std::function<bool()>& condition, double seconds = 5.0);

/// A fresh directory under the system's temporary directory, removed with the object.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/// Runs a shell command and returns its standard output; `status` receives the exit code.
std::string runCommand(const std::string& command, int* status = nullptr);

/// Runs a shell command, its output dropped; true when it exits with 0.
bool sh(const std::string& command);

/// Starts this test binary again with `variable`=`value` added to its environment, for tests
/// that need a second real process; descriptors that are not close-on-exec stay open in it.
/// -1 when it cannot start.
pid_t spawnSelf(const std::string& variable, const std::string& value);

/// In a child started by spawnSelf: the '|'-separated fields of `variable`'s value; nil in the
/// test process itself, where the variable is not set.
std::optional<std::vector<std::string>> childRequest(const std::string& variable);

/// Waits for `pid`: its exit code, 128 + the signal that ended it, or -1 when it cannot be
/// waited for.
int waitExit(pid_t pid);

}  // namespace lmkit::testing
