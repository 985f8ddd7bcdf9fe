// Runs a libFuzzer target over files named on the command line (or every file of the
// directories named), for compilers without libFuzzer.
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
        if (std::filesystem::is_directory(path)) {
            for (auto& entry : std::filesystem::recursive_directory_iterator(path))
                if (entry.is_regular_file())
                    runFile(entry.path()), ++count;
        } else {
            runFile(path), ++count;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return 0;
}
