#pragma once

// How the message channel names its files: "<identifier>.<sequence>-<pid>.archive", the
// sequence (from the directory's counter) as 20 zero-padded decimal digits so that names of one
// identifier also sort by age.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace lmkit::wormhole_detail {

/// (sequence, pid): which of two messages of an identifier is the newer.
using MessageOrder = std::pair<std::uint64_t, std::uint64_t>;

struct MessageFileName {
    std::string identifier;
    std::uint64_t sequence = 0;
    std::uint64_t pid = 0;
    std::string fileName;

    MessageOrder order() const { return {sequence, pid}; }
};

inline constexpr std::string_view kMessageSuffix = ".archive";
// The greatest sequence a name may carry: far beyond any count of messages, and low enough that
// one more never wraps.
inline constexpr std::uint64_t kMaxSequence = 9'999'999'999'999'999'999ULL;
// Long enough for any identifier a person or the kit would choose, short enough that the file
// name with its sequence stays far below NAME_MAX (255).
inline constexpr std::size_t kMaxIdentifierBytes = 200;

bool isValidIdentifier(std::string_view identifier);
std::string formatMessageFileName(const MessageFileName& file);
/// The parts of a message file's name; nullopt for any other name (temporary files, strays).
std::optional<MessageFileName> parseMessageFileName(std::string_view fileName);

}  // namespace lmkit::wormhole_detail
