#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

#include "lmkit/foundation/Data.hpp"

namespace lmkit::tool {

/// Documents larger than this are refused unless a subcommand's --max-bytes allows more: a
/// service document is a few MB, and /dev/zero must not take the memory of the machine.
inline constexpr std::uint64_t kDefaultMaxInputBytes = 64ull << 20;

/// Closes a file owned by a std::unique_ptr.
struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Reads the whole file, or standard input when `path` is empty or "-", refusing it as soon as it
/// grows past `maxBytes`. Throws Failure with a line that names the file when it cannot be read
/// or is too large (and the option that raises the limit, when the subcommand has one).
Data readInput(const std::string& path,
               std::uint64_t maxBytes = std::numeric_limits<std::uint64_t>::max(),
               std::string_view limitOption = {});

/// A whole input as text: a regular file is mapped rather than read, so that a document of tens
/// of MB costs neither a copy nor a page fault per 4 KiB of a fresh buffer (on a virtual machine
/// those faults cost more than parsing). Anything else (standard input, a pipe) is read.
class InputText {
  public:
    /// As readInput: refuses more than `maxBytes`, throws Failure naming the file.
    InputText(const std::string& path, std::uint64_t maxBytes, std::string_view limitOption);
    ~InputText();
    InputText(const InputText&) = delete;
    InputText& operator=(const InputText&) = delete;

    std::string_view text() const { return text_; }

  private:
    void* mapped_ = nullptr;
    std::size_t mappedBytes_ = 0;
    Data read_;
    std::string_view text_;
};

/// Reads the file, or standard input when `path` is empty or "-", 64 KiB at a time, handing each
/// piece to `chunk`: digests and compression run in constant memory whatever the input's size.
/// Throws Failure with a line that names the file when it cannot be read.
void readInputChunks(const std::string& path,
                     const std::function<void(const std::uint8_t*, std::size_t)>& chunk);

/// Runs `produce` with a sink that writes to the file, or to standard output when `path` is
/// empty or "-". A file is replaced whole once `produce` returns, or not at all when it throws.
void writeOutputChunks(
    const std::string& path,
    const std::function<void(const std::function<void(const std::uint8_t*, std::size_t)>&)>&
        produce);

/// Writes `data` to the file, or to standard output when `path` is empty or "-". A file is
/// replaced whole or not at all (see OutputFile). Throws Failure when it cannot be written.
void writeOutput(const std::string& path, const Data& data);

}  // namespace lmkit::tool
