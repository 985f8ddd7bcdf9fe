#include "OutputFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Command.hpp"

namespace lmkit::tool {

namespace {

Failure writeFailure(const std::string& name, int error) {
    return Failure("cannot write " + name + ": " + std::strerror(error));
}

// The mode a new file gets from the umask, or the target's own when it exists already.
mode_t modeFor(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
        return info.st_mode & 07777;
    mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
    std::filesystem::path target(path_);
    auto directory = target.parent_path();
    std::string pattern = (directory.empty() ? std::filesystem::path(".") : directory) /
                          ("." + target.filename().string() + ".XXXXXX");
    fd_ = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd_ < 0)
        throw writeFailure(path_, errno);
    temporary_ = pattern;
    ::fchmod(fd_, modeFor(path_));
}

OutputFile::~OutputFile() {
    if (fd_ >= 0)
        ::close(fd_);
    if (!temporary_.empty())
        ::unlink(temporary_.c_str());
}

void OutputFile::write(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::write(fd_, bytes, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw writeFailure(path_, errno);
        bytes += n;
        size -= static_cast<std::size_t>(n);
    }
}

void OutputFile::commit() {
    // The data is on the disk before the name points at it, so a crash leaves the old file or
    // the new one, never an empty one.
    if (::fsync(fd_) != 0)
        throw writeFailure(path_, errno);
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0)
        throw writeFailure(path_, errno);
    if (::rename(temporary_.c_str(), path_.c_str()) != 0)
        throw writeFailure(path_, errno);
    temporary_.clear();
}

void writeStandardOutput(const void* data, std::size_t size) {
    if (size > 0 && std::fwrite(data, 1, size, stdout) != size)
        throw writeFailure("standard output", errno);
}

}  // namespace lmkit::tool
