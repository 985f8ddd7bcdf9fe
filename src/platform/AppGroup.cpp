#include "lmkit/platform/AppGroup.hpp"

#include <cstdlib>
#include <mutex>
#include <system_error>

namespace lmkit {

namespace {
std::mutex gMutex;
std::filesystem::path gOverride;  // guarded by gMutex

std::filesystem::path fromEnvironment() {
    if (const char* dir = std::getenv("LMKIT_APP_GROUP_DIR"); dir && *dir)
        return dir;
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
        return std::filesystem::path(data) / "lmkit" / "app-group";
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home && *home ? home : "/tmp") / ".local" / "share" / "lmkit" /
           "app-group";
}

std::filesystem::path ensured(std::filesystem::path path) {
    std::error_code ignored;  // a directory that cannot be made shows up when it is opened
    std::filesystem::create_directories(path, ignored);
    return path;
}
}  // namespace

std::filesystem::path AppGroup::containerDirectory() {
    std::filesystem::path chosen;
    {
        std::lock_guard lock(gMutex);
        chosen = gOverride;
    }
    return ensured(chosen.empty() ? fromEnvironment() : chosen);
}

std::filesystem::path AppGroup::sharedLogDirectory() {
    return ensured(containerDirectory() / "Logs");
}

void AppGroup::setContainerDirectoryForTesting(const std::filesystem::path& directory) {
    std::lock_guard lock(gMutex);
    gOverride = directory;
}

}  // namespace lmkit
