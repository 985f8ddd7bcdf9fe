#pragma once
// Reference results from the openssl command line, so that the kit's ciphers and digests are
// checked against an independent implementation rather than against themselves.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "lmkit/foundation/Data.hpp"
#include "support/TestSupport.hpp"

namespace lmkit::testing::openssl {

inline void writeFile(const std::filesystem::path& path, const Data& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
}

inline Data readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::string hex(const Data& data) {
    std::string text;
    char pair[3];
    for (std::uint8_t byte : data) {
        std::snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

/// `openssl enc -<cipher> -K <keyHex> [-iv <ivHex>]` over `input`; empty result with
/// `*status` != 0 when openssl refuses.
inline Data enc(const std::string& cipher, const std::string& keyHex, const std::string& ivHex,
                const Data& input, bool decrypt = false, int* status = nullptr) {
    TempDir dir;
    const auto in = dir.path() / "in";
    const auto out = dir.path() / "out";
    writeFile(in, input);
    std::string command = "openssl enc -provider legacy -provider default -" + cipher +
                          (decrypt ? " -d" : "") + " -K " + keyHex;
    if (!ivHex.empty())
        command += " -iv " + ivHex;
    command += " -in " + in.string() + " -out " + out.string() + " 2>/dev/null";
    int rc = 0;
    runCommand(command, &rc);
    if (status)
        *status = rc;
    return rc == 0 ? readFile(out) : Data{};
}

/// Hex digest from `openssl dgst -<digest>`, or the HMAC with a hex key.
inline std::string dgst(const std::string& digest, const Data& input,
                        const std::string& hmacKeyHex = {}) {
    TempDir dir;
    const auto in = dir.path() / "in";
    writeFile(in, input);
    std::string command = "openssl dgst -" + digest + " -r";
    if (!hmacKeyHex.empty())
        command += " -mac HMAC -macopt hexkey:" + hmacKeyHex;
    command += " " + in.string();
    const std::string output = runCommand(command);
    return output.substr(0, output.find(' '));
}

}  // namespace lmkit::testing::openssl
