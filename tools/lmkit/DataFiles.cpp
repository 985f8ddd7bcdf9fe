#include "DataFiles.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Command.hpp"
#include "OutputFile.hpp"

namespace lmkit::tool {

namespace {

bool isStandardStream(const std::string& path) {
    return path.empty() || path == "-";
}

[[noreturn]] void throwTooLarge(const std::string& path, std::uint64_t maxBytes,
                                std::string_view limitOption) {
    throw Failure(
        (isStandardStream(path) ? std::string("standard input") : path) + " is larger than " +
        std::to_string(maxBytes) + " bytes" +
        (limitOption.empty() ? std::string() : " (see " + std::string(limitOption) + ")"));
}

}  // namespace

void readInputChunks(const std::string& path,
                     const std::function<void(const std::uint8_t*, std::size_t)>& chunk) {
    const bool standard = isStandardStream(path);
    const std::string name = standard ? std::string("standard input") : path;
    std::unique_ptr<std::FILE, FileCloser> owned;
    std::FILE* file = stdin;
    if (!standard) {
        owned.reset(std::fopen(path.c_str(), "rb"));
        if (!owned)
            throw Failure("cannot read " + path + ": " + std::strerror(errno));
        file = owned.get();
    }
    std::uint8_t buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        chunk(buffer, count);
    if (std::ferror(file))
        throw Failure("cannot read " + name + ": " + std::strerror(errno));
}

Data readInput(const std::string& path, std::uint64_t maxBytes, std::string_view limitOption) {
    Data data;
    // A regular file's size is known: one buffer of that size, instead of a growing buffer copied
    // at each doubling (a 60 MB document would be copied twice over and fault in twice the pages).
    struct stat status {};
    int statResult = isStandardStream(path) ? ::fstat(0, &status) : ::stat(path.c_str(), &status);
    if (statResult == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::uint64_t>(status.st_size) <= maxBytes)
        data.reserve(static_cast<std::size_t>(status.st_size));
    readInputChunks(path, [&](const std::uint8_t* bytes, std::size_t count) {
        if (data.size() + count > maxBytes)
            throwTooLarge(path, maxBytes, limitOption);
        data.insert(data.end(), bytes, bytes + count);
    });
    return data;
}

InputText::InputText(const std::string& path, std::uint64_t maxBytes,
                     std::string_view limitOption) {
    if (!isStandardStream(path)) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status {};
        if (fd >= 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
            if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
                ::close(fd);
                throwTooLarge(path, maxBytes, limitOption);
            }
            const auto size = static_cast<std::size_t>(status.st_size);
            void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
            ::close(fd);
            if (mapped != MAP_FAILED) {
                mapped_ = mapped;
                mappedBytes_ = size;
                text_ = std::string_view(static_cast<const char*>(mapped), size);
                return;
            }
        } else if (fd >= 0) {
            ::close(fd);
        }
    }
    // Not a regular file, or one that cannot be mapped: read it, with readInput's errors.
    read_ = readInput(path, maxBytes, limitOption);
    text_ = std::string_view(reinterpret_cast<const char*>(read_.data()), read_.size());
}

InputText::~InputText() {
    if (mapped_)
        ::munmap(mapped_, mappedBytes_);
}

void writeOutputChunks(
    const std::string& path,
    const std::function<void(const std::function<void(const std::uint8_t*, std::size_t)>&)>&
        produce) {
    if (isStandardStream(path)) {
        produce(
            [](const std::uint8_t* data, std::size_t size) { writeStandardOutput(data, size); });
        if (std::fflush(stdout) != 0)
            throw Failure(std::string("cannot write standard output: ") + std::strerror(errno));
        return;
    }
    OutputFile file(path);
    produce([&](const std::uint8_t* data, std::size_t size) { file.write(data, size); });
    file.commit();
}

void writeOutput(const std::string& path, const Data& data) {
    writeOutputChunks(path, [&](const auto& sink) { sink(data.data(), data.size()); });
}

}  // namespace lmkit::tool
