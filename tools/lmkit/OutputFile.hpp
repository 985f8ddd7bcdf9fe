#pragma once

#include <cstddef>
#include <string>

namespace lmkit::tool {

/// A named output file that appears whole or not at all. The bytes go to a temporary file in the
/// target's directory, which commit() flushes to the disk and renames over the target. Destroyed
/// without a commit (a failed write, a full disk, bad input found half-way), it removes the
/// temporary file and the target keeps what it held before.
class OutputFile {
  public:
    /// Throws Failure when no temporary file can be made beside `path`.
    explicit OutputFile(std::string path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Throws Failure naming the target when the bytes cannot be written.
    void write(const void* data, std::size_t size);
    /// Throws Failure when the file cannot be made durable or put in place.
    void commit();

  private:
    std::string path_;
    std::string temporary_;
    int fd_ = -1;
};

/// Standard output through stdio with every write checked: throws Failure on the first that
/// fails, so a stream of output stops at a full disk instead of running on.
void writeStandardOutput(const void* data, std::size_t size);

}  // namespace lmkit::tool
