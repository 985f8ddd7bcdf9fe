#pragma once

// The order of the channel's messages: a counter kept in a file of the channel's directory and
// advanced under an exclusive file lock, so that every writer of every process takes a number
// greater than all before it. The wall clock plays no part, so a clock step (NTP, a user setting
// the date) cannot reorder messages.

#include <cstdint>
#include <functional>

namespace lmkit::wormhole_detail {

/// The counter file's name: hidden, so readers never take it for a message.
inline constexpr const char* kSequenceFileName = ".sequence";

class SequenceCounter {
  public:
    /// The counter of the directory; the file is created when missing.
    explicit SequenceCounter(int directoryFd);
    ~SequenceCounter();
    SequenceCounter(const SequenceCounter&) = delete;
    SequenceCounter& operator=(const SequenceCounter&) = delete;

    /// Under the lock: takes a sequence greater than the stored one and than that of every
    /// message file in the directory (files that another version of the kit or a person left
    /// there keep their place before it), stores it and calls `publish` with it, which puts the
    /// message in place while no other writer can. False when the counter file cannot be used,
    /// the sequence space is exhausted, or `publish` returns false.
    bool advance(const std::function<bool(std::uint64_t sequence)>& publish);

  private:
    int directoryFd_;
    int fd_ = -1;
};

/// The greatest sequence among the message files of the directory (0 when there are none).
std::uint64_t highestSequenceIn(int directoryFd);

}  // namespace lmkit::wormhole_detail
