#include "ServerLoop.hpp"

#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>

namespace lmkit::testbed {

namespace {

// A timed action is due when its deadline is no further away than this: waking again for a few
// microseconds would cost more than the error it avoids.
constexpr auto kDueSlack = std::chrono::microseconds(2);
// A sleeping thread wakes late: the timer interrupt, the scheduler and, on a virtual machine,
// the hypervisor's wake-up of an idle processor each add to it, by a few tenths of a millisecond
// usually and by up to about three after a sleep of tens of milliseconds on a virtual machine. So
// the loop sleeps until four milliseconds before a deadline and spins the rest of the way, still
// reading datagrams as they come. With two, the rare later wake-ups still reached the p99 of the
// delays measured through the echo server and the relay.
constexpr auto kSpinWindow = std::chrono::milliseconds(4);

bool later(const auto& a, const auto& b) {
    return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
}

}  // namespace

std::unique_ptr<ServerLoop> ServerLoop::create(std::string& reason) {
    std::unique_ptr<ServerLoop> loop(new ServerLoop);
    loop->epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    loop->wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    loop->timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (loop->epollFd_ < 0 || loop->wakeFd_ < 0 || loop->timerFd_ < 0) {
        reason = std::string("cannot create the event loop: ") + std::strerror(errno);
        return nullptr;
    }
    for (int fd : {loop->wakeFd_, loop->timerFd_}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(loop->epollFd_, EPOLL_CTL_ADD, fd, &event);
    }
    return loop;
}

ServerLoop::~ServerLoop() {
    stop();
    for (int fd : {epollFd_, wakeFd_, timerFd_}) {
        if (fd >= 0)
            ::close(fd);
    }
}

bool ServerLoop::watch(int fd, Action onReadable) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0)
        return false;
    readers_[fd] = std::move(onReadable);
    return true;
}

void ServerLoop::unwatch(int fd) {
    epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
    readers_.erase(fd);
}

void ServerLoop::at(Clock::time_point due, Action action) {
    timed_.push_back({due, sequence_++, std::move(action)});
    std::push_heap(timed_.begin(), timed_.end(), [](auto& a, auto& b) { return later(a, b); });
}

void ServerLoop::stayAwakeFor(double seconds) {
    awakeUntil_ = std::max(awakeUntil_, Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                           std::chrono::duration<double>(seconds)));
}

void ServerLoop::maySleep() {
    awakeUntil_ = {};
}

void ServerLoop::after(double seconds, Action action) {
    at(Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)),
       std::move(action));
}

void ServerLoop::start() {
    if (started_)
        return;
    started_ = true;
    std::promise<void> waiting;
    auto ready = waiting.get_future();
    thread_ = std::thread([this, &waiting] {
        // Wake-ups of this thread are what the injected delays are made of: no timer slack.
        prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
        armTimer();
        waiting.set_value();
        run();
    });
    ready.wait();
}

void ServerLoop::stop() {
    if (!thread_.joinable())
        return;
    std::uint64_t one = 1;
    [[maybe_unused]] auto ignored = ::write(wakeFd_, &one, sizeof one);
    thread_.join();
}

void ServerLoop::run() {
    std::array<epoll_event, 64> events{};
    while (!stopping_) {
        const auto now = Clock::now();
        const bool spinning =
            now < awakeUntil_ || (!timed_.empty() && timed_.front().due - now <= kSpinWindow);
        int count =
            epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), spinning ? 0 : -1);
        // Spinning, the thread still lets whatever else is ready to run on this processor go
        // first: on a busy machine it must not starve the very programs it answers.
        if (spinning && count == 0)
            sched_yield();
        for (int i = 0; i < count && !stopping_; ++i) {
            int fd = events[i].data.fd;
            if (fd == wakeFd_) {
                stopping_ = true;
            } else if (fd == timerFd_) {
                std::uint64_t expirations = 0;
                [[maybe_unused]] auto ignored = ::read(timerFd_, &expirations, sizeof expirations);
                armedFor_ = Clock::time_point::max();
            } else if (auto reader = readers_.find(fd); reader != readers_.end()) {
                // The handler may unwatch its own descriptor: call a copy.
                auto handler = reader->second;
                handler();
            }
            // Deadlines that fall due while a burst is read are met before the next socket.
            runDueActions();
        }
        runDueActions();
        armTimer();
    }
}

void ServerLoop::afterDueActions(Action action) {
    afterDueActions_ = std::move(action);
}

void ServerLoop::runDueActions() {
    auto order = [](auto& a, auto& b) { return later(a, b); };
    bool ran = false;
    while (!timed_.empty() && timed_.front().due <= Clock::now() + kDueSlack) {
        std::pop_heap(timed_.begin(), timed_.end(), order);
        auto action = std::move(timed_.back().action);
        timed_.pop_back();
        action();
        ran = true;
    }
    if (ran && afterDueActions_)
        afterDueActions_();
}

void ServerLoop::armTimer() {
    auto due = timed_.empty() ? Clock::time_point::max() : timed_.front().due;
    if (due != Clock::time_point::max())
        due -= kSpinWindow;
    // Inside the window the thread polls without sleeping: a timer that fired would only cost
    // each turn of the loop two more system calls.
    if (due != Clock::time_point::max() && due <= Clock::now())
        due = Clock::time_point::max();
    if (due == armedFor_)
        return;
    itimerspec spec{};
    if (due != Clock::time_point::max()) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(due.time_since_epoch());
        // Zero would disarm the timer: a deadline already passed fires at once instead.
        ns = std::max(ns, std::chrono::nanoseconds(1));
        spec.it_value.tv_sec = static_cast<time_t>(ns.count() / 1'000'000'000);
        spec.it_value.tv_nsec = static_cast<long>(ns.count() % 1'000'000'000);
    }
    timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr);
    armedFor_ = due;
}

}  // namespace lmkit::testbed
