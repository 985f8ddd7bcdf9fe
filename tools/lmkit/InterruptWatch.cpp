#include "InterruptWatch.hpp"

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

}  // namespace lmkit::tool
