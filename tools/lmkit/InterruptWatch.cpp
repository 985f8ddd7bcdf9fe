#include "InterruptWatch.hpp"

#include <chrono>
#include <thread>

namespace lmkit::tool {

namespace {
volatile std::sig_atomic_t gInterrupted = 0;
}  // namespace

InterruptWatch::InterruptWatch() {
    gInterrupted = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { gInterrupted = 1; };
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previousInt_);
    sigaction(SIGTERM, &action, &previousTerm_);
}

InterruptWatch::~InterruptWatch() {
    sigaction(SIGINT, &previousInt_, nullptr);
    sigaction(SIGTERM, &previousTerm_, nullptr);
}

bool InterruptWatch::interrupted() {
    return gInterrupted != 0;
}

void InterruptWatch::wait(double seconds, const std::function<bool()>& finished) const {
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
    while (!interrupted() && !(finished && finished())) {
        if (seconds > 0 && std::chrono::steady_clock::now() >= until)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace lmkit::tool
