#include "lmkit/settings/Keychain.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "lmkit/platform/AppGroup.hpp"

namespace lmkit {

namespace {

constexpr const char* kErrorDomain = "KeychainErrorDomain";
constexpr mode_t kItemFileMode = 0600;  // items are the device's identity: owner only
constexpr mode_t kDirectoryMode = 0700;

Error systemError(const std::string& step, const std::filesystem::path& path, int code) {
    return Error::withDescription(kErrorDomain, code,
                                  step + " " + path.string() + ": " + std::strerror(code));
}

void assign(std::optional<Error>* target, Error error) {
    if (target)
        *target = std::move(error);
}

// Closes a descriptor when it goes out of scope.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0)
            ::close(fd);
    }
};

// Reads the whole item file; a missing file is an empty keychain.
std::optional<nlohmann::json> readItems(const std::filesystem::path& path,
                                        std::optional<Error>* error) {
    Descriptor in{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) {
        if (errno == ENOENT)
            return nlohmann::json::object();
        assign(error, systemError("cannot read", path, errno));
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(in.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            assign(error, systemError("cannot read", path, errno));
            return std::nullopt;
        }
        if (n == 0)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    auto items = nlohmann::json::parse(text, nullptr, false);
    if (items.is_discarded() || !items.is_object()) {
        assign(error, Error::withDescription(kErrorDomain, EINVAL,
                                             "damaged keychain file " + path.string()));
        return std::nullopt;
    }
    return items;
}

}  // namespace

Keychain::Keychain(const std::string& accessGroup)
    : path_(AppGroup::containerDirectory() / "Keychain" / (accessGroup + ".keychain")) {}

Keychain Keychain::atPath(std::filesystem::path path) {
    Keychain keychain;
    keychain.path_ = std::move(path);
    return keychain;
}

std::optional<std::string> Keychain::stringForKey(const std::string& key,
                                                  std::optional<Error>* error) const {
    auto items = readItems(path_, error);
    if (!items)
        return std::nullopt;
    auto found = items->find(key);
    if (found == items->end() || !found->is_string())
        return std::nullopt;
    return found->get<std::string>();
}

bool Keychain::setString(const std::string& value, const std::string& key,
                         std::optional<Error>* error) {
    return update(key, value, error);
}

bool Keychain::removeItem(const std::string& key, std::optional<Error>* error) {
    return update(key, std::nullopt, error);
}

bool Keychain::update(const std::string& key, const std::optional<std::string>& value,
                      std::optional<Error>* error) {
    std::error_code ec;
    auto directory = path_.parent_path();
    std::filesystem::create_directories(directory, ec);
    if (ec) {
        assign(error, systemError("cannot create", directory, ec.value()));
        return false;
    }
    ::chmod(directory.c_str(), kDirectoryMode);

    // The other process may be updating the same file: hold the lock from read to rename.
    Descriptor lock{
        ::open((path_.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kItemFileMode)};
    if (lock.fd >= 0)
        ::fchmod(lock.fd, kItemFileMode);
    if (lock.fd < 0 || ::flock(lock.fd, LOCK_EX) != 0) {
        assign(error, systemError("cannot lock", path_, errno));
        return false;
    }
    auto items = readItems(path_, error);
    if (!items)
        return false;
    if (value) {
        (*items)[key] = *value;
    } else {
        items->erase(key);
    }
    std::string text;
    try {
        text = items->dump();
    } catch (const std::exception& e) {  // an item that is not UTF-8 text
        assign(error, Error::withDescription(kErrorDomain, EINVAL, e.what()));
        return false;
    }

    auto temporary = path_.string() + ".tmp";
    {
        Descriptor out{
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kItemFileMode)};
        if (out.fd < 0) {
            assign(error, systemError("cannot write", temporary, errno));
            return false;
        }
        ::fchmod(out.fd, kItemFileMode);  // whatever the umask says
        std::size_t written = 0;
        while (written < text.size()) {
            ssize_t n = ::write(out.fd, text.data() + written, text.size() - written);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                assign(error, systemError("cannot write", temporary, errno));
                return false;
            }
            written += static_cast<std::size_t>(n);
        }
        if (::fsync(out.fd) != 0) {
            assign(error, systemError("cannot flush", temporary, errno));
            return false;
        }
    }
    if (::rename(temporary.c_str(), path_.c_str()) != 0) {
        assign(error, systemError("cannot replace", path_, errno));
        return false;
    }
    return true;
}

}  // namespace lmkit
