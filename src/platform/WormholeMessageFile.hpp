#pragma once

// Reading one message file of the channel's directory without ever blocking on it, and moving
// aside the files that cannot be read as messages.

#include <cstdint>
#include <string>
#include <vector>

namespace lmkit::wormhole_detail {

// A message file larger than this is not a message of ours; the reader refuses it rather than
// loading it.
inline constexpr std::size_t kMaxMessageBytes = 16 * 1024 * 1024;

struct MessageRead {
    enum class Outcome {
        Read,        // `bytes` holds the whole message
        Vanished,    // no file under the name any more (replaced by a newer message)
        Unreadable,  // there is something, but not a message: `reason` says why
    };
    Outcome outcome = Outcome::Unreadable;
    std::vector<std::uint8_t> bytes;
    std::string reason;
};

/// Reads the message file `name` of the directory. Opens without following links and without
/// waiting (a FIFO or device under a message name must not stall the reader), accepts regular
/// files of at most kMaxMessageBytes only.
MessageRead readMessageFile(int directoryFd, const std::string& name);

/// The name an unreadable message file is moved to: hidden, so that no reader takes it for a
/// message again, and still telling which file it was.
std::string quarantineName(const std::string& name);

/// Moves `name` aside under its quarantine name: 0, or the errno of the failure (the file then
/// stays and is skipped again next time; ENOENT when another reader moved it first).
int quarantine(int directoryFd, const std::string& name);

}  // namespace lmkit::wormhole_detail
