// Runs a libFuzzer target over files named on the command line (or every file of the
// directories named), for compilers without libFuzzer. A target that finds a fault aborts, which
// fails the run; so does a corpus that holds nothing, since a replay of nothing checks nothing.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static void runFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (auto& entry : std::filesystem::recursive_directory_iterator(path))
                if (entry.is_regular_file())
                    runFile(entry.path()), ++count;
        } else if (std::filesystem::is_regular_file(path, error)) {
            runFile(path), ++count;
        } else {
            std::fprintf(stderr, "%s: no such file or directory\n", argv[i]);
            return 1;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return count > 0 ? 0 : 1;
}
