#include "platform/WormholeSequence.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>

#include "lmkit/platform/AppGroup.hpp"
#include "platform/WormholeFileName.hpp"

namespace lmkit::wormhole_detail {

namespace {

// The stored form: the sequence in as many digits as a file name carries, and a newline, always
// the same length so that rewriting it in place needs no truncation.
constexpr std::size_t kStoredBytes = 21;

std::uint64_t readStored(int fd) {
    char text[kStoredBytes + 1] = {};
    ssize_t n;
    do {
        n = ::pread(fd, text, kStoredBytes, 0);
    } while (n < 0 && errno == EINTR);
    if (n <= 0)
        return 0;
    std::uint64_t value = 0;
    auto [end, ec] = std::from_chars(text, text + n, value);
    // A damaged counter reads as 0: the message files still hold every sequence handed out.
    if (ec != std::errc() || end == text || value > kMaxSequence)
        return 0;
    return value;
}

bool store(int fd, std::uint64_t sequence) {
    char text[kStoredBytes + 1];
    std::snprintf(text, sizeof text, "%020llu\n", static_cast<unsigned long long>(sequence));
    ssize_t n;
    do {
        n = ::pwrite(fd, text, kStoredBytes, 0);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(kStoredBytes);
}

int lockFile(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace

SequenceCounter::SequenceCounter(int directoryFd) : directoryFd_(directoryFd) {
    if (directoryFd_ < 0)
        return;
    fd_ = ::openat(directoryFd_, kSequenceFileName,
                   O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, AppGroup::kFileMode);
    struct stat info {};
    if (fd_ >= 0 && (::fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode))) {
        ::close(fd_);
        fd_ = -1;
    }
    if (fd_ >= 0 && info.st_uid == ::geteuid())
        ::fchmod(fd_, AppGroup::kFileMode);
}

SequenceCounter::~SequenceCounter() {
    if (fd_ >= 0)
        ::close(fd_);
}

bool SequenceCounter::advance(const std::function<bool(std::uint64_t)>& publish) {
    if (fd_ < 0 || lockFile(fd_, LOCK_EX) != 0)
        return false;
    const std::uint64_t stored = readStored(fd_);
    auto ceiling = [](std::uint64_t base) {
        return base < kMaxSequence - kLargestJump ? base + kLargestJump : kMaxSequence;
    };
    std::uint64_t last =
        std::max(stored, highestSequenceIn(directoryFd_, stored ? ceiling(stored) : kMaxSequence));
    // Without a stored counter the files decide; when strays at the end of the sequence space
    // leave no room, the plausible ones do.
    if (last >= kMaxSequence)
        last = std::max(stored, highestSequenceIn(directoryFd_, ceiling(stored)));
    bool done = false;
    if (last < kMaxSequence) {
        std::uint64_t sequence = last + 1;
        done = store(fd_, sequence) && publish(sequence);
    }
    lockFile(fd_, LOCK_UN);
    return done;
}

bool SequenceCounter::plausible(std::uint64_t sequence) const {
    if (fd_ < 0)
        return true;
    const std::uint64_t stored = readStored(fd_);
    return stored == 0 || sequence <= stored || sequence - stored <= kLargestJump;
}

std::uint64_t highestSequenceIn(int directoryFd, std::uint64_t ceiling) {
    std::uint64_t highest = 0;
    int fd = ::openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return highest;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return highest;
    }
    while (struct dirent* entry = ::readdir(dir))
        if (auto parsed = parseMessageFileName(entry->d_name);
            parsed && parsed->sequence <= ceiling)
            highest = std::max(highest, parsed->sequence);
    ::closedir(dir);
    return highest;
}

}  // namespace lmkit::wormhole_detail
