#pragma once

#include <filesystem>

namespace lmkit {

/// The container directory that the app and its tunnel process share. It comes from the
/// LMKIT_APP_GROUP_DIR environment variable, else a per-user data directory
/// ($XDG_DATA_HOME/lmkit/app-group, or ~/.local/share/lmkit/app-group). Created on first use.
class AppGroup {
  public:
    static std::filesystem::path containerDirectory();
    /// The directory both processes write the tunnel log stream into ("<container>/Logs").
    static std::filesystem::path sharedLogDirectory();

    /// Overrides the container (tests); an empty path restores the environment's choice.
    static void setContainerDirectoryForTesting(const std::filesystem::path& directory);
};

}  // namespace lmkit
