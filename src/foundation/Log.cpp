#include "lmkit/foundation/Log.hpp"

#include <pthread.h>

#include <cerrno>

#include <algorithm>
#include <mutex>

#include "foundation/LogBackend.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit::log {

namespace {

std::mutex gObserversMutex;
std::vector<std::shared_ptr<Observer>> gObservers;  // guarded by gObserversMutex

std::string currentThreadName() {
    char name[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0)
        return {};
    // Linux gives a thread nobody named the process's name (cut to 15 bytes). That is no name of
    // the thread's own, and the line should show the queue label instead.
    static const std::string inherited = std::string(program_invocation_short_name).substr(0, 15);
    if (inherited == name)
        return {};
    return name;
}

}  // namespace

void write(unsigned flag, std::string_view text, Stream stream, const Location& location) {
    try {
        LogMessage message;
        message.message = std::string(text);
        message.flag = flag;
        message.timestamp = std::chrono::system_clock::now();
        message.threadName = currentThreadName();
        message.queueLabel = DispatchQueue::currentLabel();
        message.file = location.file_name();
        message.function = location.function_name();
        message.line = location.line();
        message.stream = stream;

        std::vector<std::shared_ptr<Observer>> observers;
        {
            std::lock_guard lock(gObserversMutex);
            observers = gObservers;
        }
        for (auto& observer : observers)
            observer->log(message);
        detail::deliverToStreams(message);
    } catch (...) {
        // Logging never throws into the caller.
    }
}

bool isEnabled(unsigned flag) {
    if (detail::streamsAccept(flag))
        return true;
    std::lock_guard lock(gObserversMutex);
    return !gObservers.empty();
}

void addObserver(std::shared_ptr<Observer> observer) {
    std::lock_guard lock(gObserversMutex);
    gObservers.push_back(std::move(observer));
}

void removeObserver(const std::shared_ptr<Observer>& observer) {
    std::lock_guard lock(gObserversMutex);
    std::erase(gObservers, observer);
}

struct Capture::Recorder : Observer {
    mutable std::mutex mutex;
    std::vector<LogMessage> messages;  // guarded by mutex
    void log(const LogMessage& message) override {
        std::lock_guard lock(mutex);
        messages.push_back(message);
    }
};

Capture::Capture() : recorder_(std::make_shared<Recorder>()) {
    addObserver(recorder_);
}
Capture::~Capture() {
    removeObserver(recorder_);
}

std::vector<LogMessage> Capture::messages() const {
    std::lock_guard lock(recorder_->mutex);
    return recorder_->messages;
}

std::vector<std::string> Capture::texts() const {
    std::vector<std::string> out;
    for (auto& message : messages())
        out.push_back(message.message);
    return out;
}

bool Capture::contains(std::string_view fragment) const {
    return count(fragment) > 0;
}

std::size_t Capture::count(std::string_view fragment) const {
    std::lock_guard lock(recorder_->mutex);
    return std::count_if(
        recorder_->messages.begin(), recorder_->messages.end(),
        [&](const LogMessage& m) { return m.message.find(fragment) != std::string::npos; });
}

void Capture::clear() {
    std::lock_guard lock(recorder_->mutex);
    recorder_->messages.clear();
}

}  // namespace lmkit::log
