#include "DataFiles.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Command.hpp"

namespace lmkit::tool {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

bool isStandardStream(const std::string& path) {
    return path.empty() || path == "-";
}

}  // namespace

Data readInput(const std::string& path) {
    const bool standard = isStandardStream(path);
    std::unique_ptr<std::FILE, FileCloser> owned;
    std::FILE* file = stdin;
    if (!standard) {
        owned.reset(std::fopen(path.c_str(), "rb"));
        if (!owned)
            throw Failure("cannot read " + path + ": " + std::strerror(errno));
        file = owned.get();
    }
    Data data;
    std::uint8_t buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        data.insert(data.end(), buffer, buffer + count);
    if (std::ferror(file))
        throw Failure("cannot read " + (standard ? std::string("standard input") : path) + ": " +
                      std::strerror(errno));
    return data;
}

void writeOutput(const std::string& path, const Data& data) {
    const bool standard = isStandardStream(path);
    std::unique_ptr<std::FILE, FileCloser> owned;
    std::FILE* file = stdout;
    if (!standard) {
        owned.reset(std::fopen(path.c_str(), "wb"));
        if (!owned)
            throw Failure("cannot write " + path + ": " + std::strerror(errno));
        file = owned.get();
    }
    const std::string name = standard ? std::string("standard output") : path;
    if (std::fwrite(data.data(), 1, data.size(), file) != data.size() || std::fflush(file) != 0)
        throw Failure("cannot write " + name + ": " + std::strerror(errno));
    if (owned && std::fclose(owned.release()) != 0)
        throw Failure("cannot write " + name + ": " + std::strerror(errno));
}

}  // namespace lmkit::tool
