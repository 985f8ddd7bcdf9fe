#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// How a message reaches the other process. Only the coordinated-file way exists here; the
/// value keeps the number the app and the tunnel agree on.
enum class WormholeTransitingType { CoordinatedFile = 1 };

/// A message carrier between two processes that share a directory (the app-group container).
///
/// Each message is a file in the carrier's directory, written whole under a hidden temporary name
/// and then renamed to "<identifier>.<sequence>-<pid>.archive". The sequence comes from a counter
/// kept in the directory and advanced under a file lock, above every message already there, so
/// the newest message of an identifier is the one with the greatest sequence whatever the clocks
/// of the writers say. A fresh name per message keeps the writer off ext4's costly
/// replace-on-rename path (about 1.2 ms against a few microseconds for a new name); once the new
/// message is in place, the writer unlinks its own previous file of that identifier.
///
/// A reader thread waits on inotify for renames into the directory and calls the listener of
/// the identifier, on the carrier's serial queue, with the file's bytes. A listener sees whole
/// messages only, in sequence order; when messages arrive faster than it is called, older ones of
/// an identifier are skipped in favour of the newest, never the other way round. Different
/// identifiers are delivered in the order their messages arrived. Messages written by this
/// process reach its own listeners too. A file written in place under a message name (not
/// renamed into the directory) counts once it is closed.
///
/// Files are opened without following links and without waiting, and only regular files of at
/// most 16 MiB are messages. A file under a message name that cannot be read as one (a FIFO, a
/// directory, a link, too large, no permission) is moved aside under a hidden name and reported
/// to the diagnostic handler; the newest readable message is delivered instead. No reader deletes
/// a message unless a newer message of its identifier has been read. A message file whose
/// sequence lies far beyond the directory's counter was named by nothing that writes the
/// channel; it is moved aside too, so that it cannot pass for the newest message for ever.
///
/// Destroying the carrier stops its reader and its listeners; a listener call already running
/// on the queue finishes.
///
/// Operations never throw; a failed write returns false.
class Wormhole {
  public:
    using Bytes = std::vector<std::uint8_t>;
    using Listener = std::function<void(const Bytes& message)>;
    /// Told, in one line, about files the carrier moved aside. Called on the reader's thread or
    /// the caller's; it must not call back into the carrier.
    using DiagnosticHandler = std::function<void(const std::string& line)>;
    /// Whether a file's bytes are a message at all (for instance, whether they unarchive): a file
    /// that is not is moved aside like an unreadable one, and the newest message before it
    /// counts. Called on the reader's thread or the caller's; it must not call back into the
    /// carrier.
    using MessageCheck = std::function<bool(const Bytes& message)>;

    /// The carrier over "<container>/<optionalDirectory>" (the container itself when the
    /// directory is empty). The directory is created when missing.
    Wormhole(std::filesystem::path containerDirectory, const std::string& optionalDirectory,
             WormholeTransitingType transitingType = WormholeTransitingType::CoordinatedFile);
    ~Wormhole();
    Wormhole(const Wormhole&) = delete;
    Wormhole& operator=(const Wormhole&) = delete;

    /// The directory that holds the message files.
    const std::filesystem::path& directory() const;
    /// The queue listeners run on.
    const DispatchQueue& queue() const;

    /// Writes `message` as the newest message of `identifier` and wakes the listeners. False when
    /// the identifier is not a usable file name or the file could not be written.
    bool passMessageData(const std::string& identifier, const Bytes& message);

    /// The newest message of `identifier` in the directory, whoever wrote it and when.
    std::optional<Bytes> messageWithIdentifier(const std::string& identifier) const;

    /// Makes `listener` the one listener of `identifier` (replacing an earlier one). It is called
    /// for messages written from now on.
    void listenForMessageWithIdentifier(const std::string& identifier, Listener listener);
    /// Ends delivery to the listener of `identifier`; a call already queued does not run.
    void stopListeningForMessageWithIdentifier(const std::string& identifier);

    /// Removes the stored messages of `identifier`, or of every identifier.
    void clearMessageContentsForIdentifier(const std::string& identifier);
    void clearAllMessageContents();

    /// Replaces the diagnostic handler (none by default).
    void setDiagnosticHandler(DiagnosticHandler handler);
    /// Replaces the check of message contents (none by default: any bytes are a message).
    void setMessageCheck(MessageCheck check);

    /// Whether `identifier` can name messages: not empty, at most 200 bytes, no '/', no NUL,
    /// not starting with '.'.
    static bool isValidIdentifier(const std::string& identifier);

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace lmkit
