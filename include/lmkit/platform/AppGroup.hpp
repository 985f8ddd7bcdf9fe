#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "lmkit/platform/Error.hpp"

namespace lmkit {

/// The app group that the app and its tunnel process share: its identifier (the settings suite's
/// name) and its container directory. One resolver decides both for every store, the message
/// channel, the keychain and the shared logs, so the two processes cannot drift apart:
///
/// - the deployment file (LMKIT_ENVIRONMENT_FILE, else "Environment.json" in the bundle
///   directory) names the identifier ("appGroup") and may name the directory
///   ("appGroupDirectory");
/// - else the LMKIT_APP_GROUP_DIR environment variable names the directory (set but empty is
///   an error, never a silent fallback);
/// - else a per-user data directory ($XDG_DATA_HOME/lmkit/app-group, or
///   ~/.local/share/lmkit/app-group).
///
/// The container holds tokens: directories made in it are 0700 and files 0600, whatever the
/// process's umask.
class AppGroup {
  public:
    /// The identifier the suite is named after (the deployment file's, else the built-in one).
    static std::string identifier();

    /// The container directory, created on first use. A configuration that names no usable
    /// directory stops the process with one line saying why (see resolveContainerDirectory).
    static std::filesystem::path containerDirectory();
    /// The directory or the reason there is none; never stops the process.
    static std::optional<std::filesystem::path> resolveContainerDirectory(Error* error = nullptr);
    /// Where the container is, without creating it: a store that creates its own file below it
    /// reports a container it cannot use with the file's path.
    static std::optional<std::filesystem::path> chooseContainerDirectory(Error* error = nullptr);

    /// The directory both processes write the tunnel log stream into ("<container>/Logs").
    static std::filesystem::path sharedLogDirectory();

    /// The deployment file this process reads, or empty when there is none.
    static std::filesystem::path deploymentFile();

    /// Creates `directory` and its missing parents with mode 0700; false (and `error`) on failure.
    static bool makePrivateDirectory(const std::filesystem::path& directory,
                                     Error* error = nullptr);
    /// Mode for files created in the container.
    static constexpr int kFileMode = 0600;
    static constexpr int kDirectoryMode = 0700;

    /// Overrides the container (tests); an empty path restores the configured choice.
    static void setContainerDirectoryForTesting(const std::filesystem::path& directory);
};

}  // namespace lmkit
