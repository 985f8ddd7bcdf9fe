#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace lmkit::testing {

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

}  // namespace lmkit::testing
