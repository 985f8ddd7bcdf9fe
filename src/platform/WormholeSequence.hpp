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

    /// Whether a message file's sequence can have come from a writer of this directory: every
    /// writer stores the counter before its message appears, so a sequence far beyond the stored
    /// one is a stray (a file named by hand or by something else). Left in place it would pass
    /// for the newest message for ever and, at the end of the sequence space, stop every writer.
    /// With no counter stored yet every sequence is plausible.
    bool plausible(std::uint64_t sequence) const;

    /// How far beyond the stored counter a sequence may lie and still be a message: room for a
    /// million messages a second for eleven days, far below the sequence space.
    static constexpr std::uint64_t kLargestJump = 1'000'000'000'000ULL;

  private:
    int directoryFd_;
    int fd_ = -1;
};

/// The greatest sequence, at most `ceiling`, among the message files of the directory (0 when
/// there are none).
std::uint64_t highestSequenceIn(int directoryFd, std::uint64_t ceiling);

}  // namespace lmkit::wormhole_detail
