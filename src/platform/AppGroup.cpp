#include "lmkit/platform/AppGroup.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <system_error>

#include <nlohmann/json.hpp>

namespace lmkit {

namespace {

constexpr const char* kDirectoryVariable = "LMKIT_APP_GROUP_DIR";
constexpr const char* kFileVariable = "LMKIT_ENVIRONMENT_FILE";
constexpr const char* kBundleVariable = "LMKIT_BUNDLE_DIR";
constexpr const char* kBundleFileName = "Environment.json";
constexpr const char* kBuiltInIdentifier = "group.com.lmkit.shared";
constexpr const char* kErrorDomain = "AppGroupErrorDomain";

std::mutex gOverrideMutex;
std::filesystem::path gOverride;  // guarded by gOverrideMutex

struct Deployment {
    std::string identifier = kBuiltInIdentifier;
    std::filesystem::path directory;  // empty: the file names none
};

// The deployment file's two app-group members, read once. A file that cannot be read leaves the
// built-in identifier; the settings layer reports what is wrong with it.
const Deployment& deployment() {
    static const Deployment read = [] {
        Deployment d;
        auto file = AppGroup::deploymentFile();
        if (file.empty())
            return d;
        std::ifstream in(file);
        auto json = nlohmann::json::parse(in, nullptr, false);
        if (json.is_discarded() || !json.is_object())
            return d;
        if (auto it = json.find("appGroup");
            it != json.end() && it->is_string() && !it->get_ref<const std::string&>().empty())
            d.identifier = it->get<std::string>();
        if (auto it = json.find("appGroupDirectory"); it != json.end() && it->is_string())
            d.directory = it->get<std::string>();
        return d;
    }();
    return read;
}

std::filesystem::path perUserDefault() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
        return std::filesystem::path(data) / "lmkit" / "app-group";
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home && *home ? home : "/tmp") / ".local" / "share" / "lmkit" /
           "app-group";
}

Error failure(long code, std::string description) {
    return Error::withDescription(kErrorDomain, code, std::move(description));
}

}  // namespace

std::filesystem::path AppGroup::deploymentFile() {
    if (const char* named = std::getenv(kFileVariable); named && *named)
        return named;
    std::error_code ec;
    std::filesystem::path bundle;
    if (const char* dir = std::getenv(kBundleVariable); dir && *dir) {
        bundle = dir;
    } else {
        auto executable = std::filesystem::read_symlink("/proc/self/exe", ec);
        if (ec)
            return {};
        bundle = executable.parent_path();
    }
    auto candidate = bundle / kBundleFileName;
    return std::filesystem::exists(candidate, ec) ? candidate : std::filesystem::path();
}

std::string AppGroup::identifier() {
    return deployment().identifier;
}

bool AppGroup::makePrivateDirectory(const std::filesystem::path& directory, Error* error) {
    std::error_code ec;
    if (std::filesystem::is_directory(directory, ec))
        return true;
    if (directory.has_parent_path() && directory.parent_path() != directory &&
        !makePrivateDirectory(directory.parent_path(), error))
        return false;
    // mkdir's mode is cut by the umask; chmod gives the directory exactly 0700.
    if (::mkdir(directory.c_str(), kDirectoryMode) != 0) {
        if (errno == EEXIST && std::filesystem::is_directory(directory, ec))
            return true;
        if (error)
            *error =
                failure(errno, "cannot create " + directory.string() + ": " + std::strerror(errno));
        return false;
    }
    ::chmod(directory.c_str(), kDirectoryMode);
    return true;
}

std::optional<std::filesystem::path> AppGroup::chooseContainerDirectory(Error* error) {
    std::filesystem::path chosen;
    {
        std::lock_guard lock(gOverrideMutex);
        chosen = gOverride;
    }
    if (chosen.empty())
        chosen = deployment().directory;
    if (chosen.empty()) {
        if (const char* dir = std::getenv(kDirectoryVariable)) {
            if (!*dir) {
                if (error)
                    *error = failure(1, std::string(kDirectoryVariable) +
                                            " is set but empty; set it to the shared container "
                                            "directory or unset it");
                return std::nullopt;
            }
            chosen = dir;
        }
    }
    if (chosen.empty())
        chosen = perUserDefault();
    return chosen;
}

std::optional<std::filesystem::path> AppGroup::resolveContainerDirectory(Error* error) {
    auto chosen = chooseContainerDirectory(error);
    if (!chosen || !makePrivateDirectory(*chosen, error))
        return std::nullopt;
    return chosen;
}

std::filesystem::path AppGroup::containerDirectory() {
    Error error;
    if (auto directory = resolveContainerDirectory(&error))
        return *directory;
    // Both processes depend on the container from start-up on; running on without it would
    // write settings and messages where the other process never looks.
    std::fprintf(stderr, "lmkit: no shared container: %s\n", error.localizedDescription().c_str());
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
}

std::filesystem::path AppGroup::sharedLogDirectory() {
    auto directory = containerDirectory() / "Logs";
    makePrivateDirectory(directory);
    return directory;
}

void AppGroup::setContainerDirectoryForTesting(const std::filesystem::path& directory) {
    std::lock_guard lock(gOverrideMutex);
    gOverride = directory;
}

}  // namespace lmkit
