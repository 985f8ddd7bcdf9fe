#include "platform/WormholeMessageFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace lmkit::wormhole_detail {

namespace {

std::string describeErrno(const char* step, int error) {
    return std::string(step) + ": " + std::strerror(error);
}

}  // namespace

MessageRead readMessageFile(int directoryFd, const std::string& name) {
    MessageRead result;
    int fd = ::openat(directoryFd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT) {
            result.outcome = MessageRead::Outcome::Vanished;
        } else {
            result.reason =
                errno == ELOOP ? std::string("a symbolic link") : describeErrno("open", errno);
        }
        return result;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        result.reason = describeErrno("stat", errno);
    } else if (!S_ISREG(info.st_mode)) {
        result.reason = "not a regular file";
    } else if (static_cast<std::uint64_t>(info.st_size) > kMaxMessageBytes) {
        result.reason = "larger than " + std::to_string(kMaxMessageBytes) + " bytes";
    } else {
        // The size is a hint only: a file still growing is read up to the limit, and one more
        // byte tells that it went past it.
        auto& bytes = result.bytes;
        bytes.resize(static_cast<std::size_t>(info.st_size) + 1);
        std::size_t done = 0;
        bool failed = false;
        for (;;) {
            if (done == bytes.size()) {
                if (bytes.size() > kMaxMessageBytes)
                    break;
                bytes.resize(std::min(bytes.size() * 2, kMaxMessageBytes + 1));
            }
            ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                result.reason = describeErrno("read", errno);
                failed = true;
                break;
            }
            if (n == 0)
                break;
            done += static_cast<std::size_t>(n);
        }
        if (!failed && done > kMaxMessageBytes) {
            result.reason = "larger than " + std::to_string(kMaxMessageBytes) + " bytes";
        } else if (!failed) {
            bytes.resize(done);
            result.outcome = MessageRead::Outcome::Read;
        }
    }
    ::close(fd);
    if (result.outcome != MessageRead::Outcome::Read)
        result.bytes.clear();
    return result;
}

std::string quarantineName(const std::string& name) {
    return ".unreadable." + name;
}

int quarantine(int directoryFd, const std::string& name) {
    auto target = quarantineName(name);
    return ::renameat(directoryFd, name.c_str(), directoryFd, target.c_str()) == 0 ? 0 : errno;
}

}  // namespace lmkit::wormhole_detail
