#include "lmkit/platform/Wormhole.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "lmkit/platform/AppGroup.hpp"
#include "platform/WormholeFileName.hpp"
#include "platform/WormholeMessageFile.hpp"
#include "platform/WormholeSequence.hpp"

namespace lmkit {

namespace {

// One read() of the inotify descriptor. Events are coalesced per identifier over a batch, so a
// larger buffer lets a reader that fell behind skip more superseded messages at once.
constexpr std::size_t kEventBufferBytes = 64 * 1024;
// Reads per batch before the reader delivers what it has, so a writer that never pauses cannot
// starve the listeners.
constexpr int kMaxReadsPerBatch = 16;

bool writeAll(int fd, const Wormhole::Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Every message file of the directory, by identifier, newest first.
std::map<std::string, std::vector<wormhole_detail::MessageFileName>> scanDirectory(
    int directoryFd, const std::string* onlyIdentifier) {
    std::map<std::string, std::vector<wormhole_detail::MessageFileName>> found;
    int fd = ::openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return found;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return found;
    }
    while (struct dirent* entry = ::readdir(dir)) {
        auto parsed = wormhole_detail::parseMessageFileName(entry->d_name);
        if (!parsed || (onlyIdentifier && parsed->identifier != *onlyIdentifier))
            continue;
        found[parsed->identifier].push_back(std::move(*parsed));
    }
    ::closedir(dir);
    for (auto& [identifier, files] : found)
        std::sort(files.begin(), files.end(),
                  [](const auto& a, const auto& b) { return b.order() < a.order(); });
    return found;
}

}  // namespace

struct Wormhole::State : std::enable_shared_from_this<Wormhole::State> {
    std::filesystem::path directory;
    int directoryFd = -1;
    int inotifyFd = -1;
    int stopFd = -1;
    std::optional<DispatchQueue> queue;
    std::thread reader;

    std::mutex listenersMutex;
    std::unordered_map<std::string, std::shared_ptr<Listener>> listeners;  // listenersMutex

    DiagnosticHandler diagnostics;  // listenersMutex
    MessageCheck messageCheck;      // listenersMutex

    // Writers of this process take their sequence and replace their previous file one at a time.
    std::mutex writeMutex;
    std::unique_ptr<wormhole_detail::SequenceCounter> counter;  // guarded by writeMutex
    std::unordered_map<std::string, std::string> ownPrevious;   // guarded by writeMutex
    std::uint64_t temporaryCounter = 0;                         // guarded by writeMutex

    // The newest message handed to the queue per identifier; reader thread only.
    std::unordered_map<std::string, wormhole_detail::MessageOrder> delivered;

    ~State() {
        for (int fd : {directoryFd, inotifyFd, stopFd})
            if (fd >= 0)
                ::close(fd);
    }

    bool hasListener(const std::string& identifier) {
        std::lock_guard lock(listenersMutex);
        return listeners.count(identifier) != 0;
    }

    void report(const std::string& line) {
        DiagnosticHandler handler;
        {
            std::lock_guard lock(listenersMutex);
            handler = diagnostics;
        }
        if (!handler)
            return;
        try {
            handler(line);
        } catch (...) {
            // A diagnostic that cannot be told is lost, not the message channel.
        }
    }

    // Reads a message file; one that is there but cannot be a message (not a regular file, too
    // large, a sequence no writer of the directory can have taken, contents the carrier's check
    // refuses) is moved aside so that neither this reader nor any other stumbles over it again.
    wormhole_detail::MessageRead read(const std::string& name) {
        auto result = wormhole_detail::readMessageFile(directoryFd, name);
        if (result.outcome == wormhole_detail::MessageRead::Outcome::Read) {
            auto parsed = wormhole_detail::parseMessageFileName(name);
            if (parsed && counter && !counter->plausible(parsed->sequence)) {
                result.outcome = wormhole_detail::MessageRead::Outcome::Unreadable;
                result.reason = "its sequence lies beyond every writer's";
            } else if (!accepts(result.bytes)) {
                result.outcome = wormhole_detail::MessageRead::Outcome::Unreadable;
                result.reason = "its contents are not a message";
            }
        }
        if (result.outcome == wormhole_detail::MessageRead::Outcome::Unreadable) {
            int error = wormhole_detail::quarantine(directoryFd, name);
            if (error == 0)
                report("moved aside the unreadable message file " + name + " (" + result.reason +
                       ") as " + wormhole_detail::quarantineName(name));
            else if (error != ENOENT)  // ENOENT: another reader moved it first
                report("cannot move aside the unreadable message file " + name + " (" +
                       result.reason + "): " + std::strerror(error));
        }
        return result;
    }

    // A message file older than one that was read: a regular file goes, anything else under a
    // message name is moved aside like any unreadable file, so that nobody's FIFO or directory
    // is deleted on the channel's say-so.
    void removeSuperseded(const std::string& name) {
        struct stat info {};
        if (::fstatat(directoryFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            return;
        if (S_ISREG(info.st_mode))
            ::unlinkat(directoryFd, name.c_str(), 0);
        else
            read(name);
    }

    bool accepts(const Bytes& message) {
        MessageCheck check;
        {
            std::lock_guard lock(listenersMutex);
            check = messageCheck;
        }
        try {
            return !check || check(message);
        } catch (...) {
            return false;
        }
    }

    bool isDelivered(const std::string& identifier, const wormhole_detail::MessageOrder& order) {
        auto last = delivered.find(identifier);
        if (last == delivered.end())
            return false;
        // A stray delivered before the directory's counter showed it to be one must not hide
        // every real message after it.
        if (counter && !counter->plausible(last->second.first)) {
            delivered.erase(last);
            return false;
        }
        return !(last->second < order);
    }

    void enqueue(const std::string& identifier, const wormhole_detail::MessageOrder& order,
                 Bytes message) {
        delivered[identifier] = order;
        std::weak_ptr<State> weak = weak_from_this();
        queue->async([weak, identifier, message = std::move(message)] {
            auto self = weak.lock();
            if (!self)
                return;
            std::shared_ptr<Listener> listener;
            {
                std::lock_guard lock(self->listenersMutex);
                auto found = self->listeners.find(identifier);
                if (found != self->listeners.end())
                    listener = found->second;
            }
            if (!listener || !*listener)
                return;
            try {
                (*listener)(message);
            } catch (...) {
                // A listener's failure is its own; the channel keeps delivering.
            }
        });
    }

    // Delivers the newest readable message of `identifier` that is newer than the last one
    // delivered, looking at the directory itself.
    void deliverNewestOf(const std::string& identifier) {
        if (!hasListener(identifier))
            return;
        auto files = scanDirectory(directoryFd, &identifier);
        auto found = files.find(identifier);
        if (found == files.end())
            return;
        for (const auto& file : found->second) {
            if (isDelivered(identifier, file.order()))
                return;
            auto message = read(file.fileName);
            if (message.outcome == wormhole_detail::MessageRead::Outcome::Read) {
                enqueue(identifier, file.order(), std::move(message.bytes));
                return;
            }
        }
    }

    void deliver(const std::string& identifier, const wormhole_detail::MessageFileName& file) {
        if (isDelivered(identifier, file.order()) || !hasListener(identifier))
            return;
        auto message = read(file.fileName);
        switch (message.outcome) {
            case wormhole_detail::MessageRead::Outcome::Read:
                enqueue(identifier, file.order(), std::move(message.bytes));
                return;
            case wormhole_detail::MessageRead::Outcome::Vanished:
                // Replaced and unlinked already: its successor has an event of its own.
                return;
            case wormhole_detail::MessageRead::Outcome::Unreadable:
                // The message it was meant to be is lost; the newest one before it is not.
                deliverNewestOf(identifier);
                return;
        }
    }

    void rescanListened() {
        std::vector<std::string> identifiers;
        {
            std::lock_guard lock(listenersMutex);
            for (const auto& [identifier, listener] : listeners)
                identifiers.push_back(identifier);
        }
        for (const auto& identifier : identifiers)
            deliverNewestOf(identifier);
    }

    void readLoop() {
        std::vector<char> buffer(kEventBufferBytes);
        for (;;) {
            pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
            int ready = ::poll(fds, 2, -1);
            if (ready < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            if (fds[1].revents != 0)
                return;
            if (fds[0].revents & (POLLERR | POLLNVAL))
                return;

            // The newest file per identifier in this batch, with the position of its event, so
            // that identifiers are delivered in the order their messages arrived.
            std::unordered_map<std::string,
                               std::pair<std::size_t, wormhole_detail::MessageFileName>>
                newest;
            std::size_t position = 0;
            bool overflowed = false;
            for (int reads = 0; reads < kMaxReadsPerBatch; ++reads) {
                ssize_t n = ::read(inotifyFd, buffer.data(), buffer.size());
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0)
                    break;
                for (ssize_t offset = 0; offset < n;) {
                    const auto* event =
                        reinterpret_cast<const inotify_event*>(buffer.data() + offset);
                    offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                    if (event->mask & IN_Q_OVERFLOW) {
                        overflowed = true;
                        continue;
                    }
                    if (event->len == 0)
                        continue;
                    auto parsed = wormhole_detail::parseMessageFileName(event->name);
                    if (!parsed)
                        continue;
                    auto& slot = newest[parsed->identifier];
                    if (slot.second.fileName.empty() || slot.second.order() < parsed->order())
                        slot = {position, std::move(*parsed)};
                    ++position;
                }
            }
            if (overflowed) {
                rescanListened();
                continue;
            }
            std::vector<std::pair<std::size_t, const wormhole_detail::MessageFileName*>> ordered;
            for (const auto& [identifier, slot] : newest)
                ordered.emplace_back(slot.first, &slot.second);
            std::sort(ordered.begin(), ordered.end(),
                      [](const auto& a, const auto& b) { return a.first < b.first; });
            for (const auto& [at, file] : ordered)
                deliver(file->identifier, *file);
        }
    }
};

Wormhole::Wormhole(std::filesystem::path containerDirectory, const std::string& optionalDirectory,
                   WormholeTransitingType /*transitingType*/)
    : state_(std::make_shared<State>()) {
    state_->directory =
        optionalDirectory.empty() ? containerDirectory : containerDirectory / optionalDirectory;
    char label[64];
    std::snprintf(label, sizeof label, "lmkit.wormhole.listenerQueue.%p",
                  static_cast<void*>(state_.get()));
    state_->queue = DispatchQueue::serial(label);

    // Inside the shared container, private like every directory made there.
    AppGroup::makePrivateDirectory(state_->directory);
    state_->directoryFd = ::open(state_->directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    state_->inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    state_->stopFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (state_->directoryFd < 0)
        return;  // a carrier without a directory writes nothing and hears nothing
    state_->counter = std::make_unique<wormhole_detail::SequenceCounter>(state_->directoryFd);
    if (state_->inotifyFd < 0 || state_->stopFd < 0)
        return;  // no way to wake: it still writes and reads stored messages
    // A rename into the directory is how messages arrive; a file written in place (by hand, by
    // another tool) counts once it is closed.
    if (::inotify_add_watch(state_->inotifyFd, state_->directory.c_str(),
                            IN_MOVED_TO | IN_CLOSE_WRITE) < 0)
        return;
    state_->reader = std::thread([state = state_.get()] { state->readLoop(); });
}

Wormhole::~Wormhole() {
    if (state_->reader.joinable()) {
        std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(state_->stopFd, &one, sizeof one);
        state_->reader.join();
    }
    std::lock_guard lock(state_->listenersMutex);
    state_->listeners.clear();
}

const std::filesystem::path& Wormhole::directory() const {
    return state_->directory;
}

const DispatchQueue& Wormhole::queue() const {
    return *state_->queue;
}

bool Wormhole::isValidIdentifier(const std::string& identifier) {
    return wormhole_detail::isValidIdentifier(identifier);
}

bool Wormhole::passMessageData(const std::string& identifier, const Bytes& message) {
    auto& s = *state_;
    if (!isValidIdentifier(identifier) || s.directoryFd < 0 || !s.counter)
        return false;
    std::lock_guard lock(s.writeMutex);
    // Hidden, so no reader takes it for a message while it is being written. Written before the
    // sequence is taken, so that other writers wait only for the rename.
    std::string temporary =
        "." + std::to_string(::getpid()) + "." + std::to_string(++s.temporaryCounter) + ".tmp";
    int fd = ::openat(s.directoryFd, temporary.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, AppGroup::kFileMode);
    if (fd < 0)
        return false;
    ::fchmod(fd, AppGroup::kFileMode);  // whatever the umask: messages carry the user's data
    bool written = writeAll(fd, message);
    written = (::close(fd) == 0) && written;
    std::string placed;
    if (written)
        written = s.counter->advance([&](std::uint64_t sequence) {
            wormhole_detail::MessageFileName file{
                identifier, sequence, static_cast<std::uint64_t>(::getpid()), {}};
            file.fileName = wormhole_detail::formatMessageFileName(file);
            if (::renameat(s.directoryFd, temporary.c_str(), s.directoryFd,
                           file.fileName.c_str()) != 0)
                return false;
            placed = file.fileName;
            return true;
        });
    if (!written) {
        ::unlinkat(s.directoryFd, temporary.c_str(), 0);
        return false;
    }
    // The new message is in place and newer, so the previous one of this writer has no more
    // news to tell.
    auto& previous = s.ownPrevious[identifier];
    if (!previous.empty())
        ::unlinkat(s.directoryFd, previous.c_str(), 0);
    previous = placed;
    return true;
}

std::optional<Wormhole::Bytes> Wormhole::messageWithIdentifier(
    const std::string& identifier) const {
    auto& s = *state_;
    if (!isValidIdentifier(identifier) || s.directoryFd < 0)
        return std::nullopt;
    // A file may vanish between the scan and the read when its writer replaces it; the
    // replacement is then the newest, so scan again.
    for (int attempt = 0; attempt < 8; ++attempt) {
        auto files = scanDirectory(s.directoryFd, &identifier);
        auto found = files.find(identifier);
        if (found == files.end())
            return std::nullopt;
        auto& candidates = found->second;
        bool vanished = false;
        for (std::size_t i = 0; i < candidates.size() && !vanished; ++i) {
            auto message = s.read(candidates[i].fileName);
            if (message.outcome == wormhole_detail::MessageRead::Outcome::Vanished)
                vanished = true;
            if (message.outcome != wormhole_detail::MessageRead::Outcome::Read)
                continue;
            // Older files are left behind by writers that ended before replacing them; this
            // message supersedes them.
            for (std::size_t older = i + 1; older < candidates.size(); ++older)
                s.removeSuperseded(candidates[older].fileName);
            return std::move(message.bytes);
        }
        if (!vanished)
            return std::nullopt;
    }
    return std::nullopt;
}

void Wormhole::listenForMessageWithIdentifier(const std::string& identifier, Listener listener) {
    std::lock_guard lock(state_->listenersMutex);
    state_->listeners[identifier] = std::make_shared<Listener>(std::move(listener));
}

void Wormhole::setDiagnosticHandler(DiagnosticHandler handler) {
    std::lock_guard lock(state_->listenersMutex);
    state_->diagnostics = std::move(handler);
}

void Wormhole::setMessageCheck(MessageCheck check) {
    std::lock_guard lock(state_->listenersMutex);
    state_->messageCheck = std::move(check);
}

void Wormhole::stopListeningForMessageWithIdentifier(const std::string& identifier) {
    std::lock_guard lock(state_->listenersMutex);
    state_->listeners.erase(identifier);
}

void Wormhole::clearMessageContentsForIdentifier(const std::string& identifier) {
    if (!isValidIdentifier(identifier) || state_->directoryFd < 0)
        return;
    for (const auto& [name, files] : scanDirectory(state_->directoryFd, &identifier))
        for (const auto& file : files)
            ::unlinkat(state_->directoryFd, file.fileName.c_str(), 0);
}

void Wormhole::clearAllMessageContents() {
    if (state_->directoryFd < 0)
        return;
    for (const auto& [name, files] : scanDirectory(state_->directoryFd, nullptr))
        for (const auto& file : files)
            ::unlinkat(state_->directoryFd, file.fileName.c_str(), 0);
}

}  // namespace lmkit
