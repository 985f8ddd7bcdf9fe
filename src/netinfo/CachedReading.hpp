#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace lmkit::detail {

/// Wraps a reading of a system service so that one answer (or one failure to answer) stands for
/// `maxAge`. Callers that ask while a reading is under way wait for it and share its answer, so a
/// burst of questions makes one reading. The returned function is safe from any thread, never
/// throws (a reading that throws counts as no answer) and may be copied freely.
template <typename T>
std::function<std::optional<T>()> cachedReading(std::function<std::optional<T>()> read,
                                                std::chrono::milliseconds maxAge) {
    struct State {
        std::function<std::optional<T>()> read;
        std::chrono::milliseconds maxAge;
        std::mutex mutex;                                             // held across a reading
        std::optional<std::chrono::steady_clock::time_point> readAt;  // guarded by mutex
        std::optional<T> answer;                                      // guarded by mutex
    };
    auto state = std::make_shared<State>();
    state->read = std::move(read);
    state->maxAge = maxAge;
    return [state]() -> std::optional<T> {
        try {
            std::lock_guard lock(state->mutex);
            if (!state->readAt ||
                std::chrono::steady_clock::now() - *state->readAt >= state->maxAge) {
                state->answer.reset();
                state->answer = state->read();
                // Stamped after the reading: a service that timed out is not asked again at once.
                state->readAt = std::chrono::steady_clock::now();
            }
            return state->answer;
        } catch (...) {
            return std::nullopt;
        }
    };
}

}  // namespace lmkit::detail
