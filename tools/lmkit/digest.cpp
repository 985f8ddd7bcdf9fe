// lmkit digest: MD5, SHA-1, SHA-256 or SHA-512 digest (or HMAC) of a file or standard input.
#include <cstdio>
#include <optional>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/foundation/DataDigest.hpp"
#include "lmkit/foundation/DigestStream.hpp"

namespace lmkit::tool {
namespace {

struct DigestOptions {
    std::string algorithm;
    std::string input;
    std::optional<std::string> hmacKey;
};

Command digestCommand(
    "digest", "Hex digest (or HMAC) of a file or standard input",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<DigestOptions>();
        app.add_option("algorithm", options->algorithm, "md5, sha1, sha256 or sha512")
            ->required()
            ->check(CLI::IsMember({"md5", "sha1", "sha256", "sha512"}));
        app.add_option("file", options->input, "File to digest (standard input when absent or -)");
        app.add_option("--hmac-key", options->hmacKey, "Compute the HMAC with this key text");
        app.add_flag("--json", common.json, "Print data as JSON");
        return [options, &common]() -> int {
            // Fed a piece at a time: a file of any size digests in constant memory.
            std::optional<Data> key;
            if (options->hmacKey)
                key = bytes::toData(*options->hmacKey);
            auto stream = digest::DigestStream::make(options->algorithm, key);
            if (!stream)
                throw Failure("cannot compute the " + options->algorithm +
                              (key ? " HMAC" : " digest"));
            readInputChunks(options->input, [&](const std::uint8_t* data, std::size_t size) {
                stream->update(data, size);
            });
            const Data result = stream->finish();
            const std::string hex = digest::hexString(result);
            if (common.json) {
                nlohmann::ordered_json out;
                out["algorithm"] = options->algorithm;
                out["hmac"] = options->hmacKey.has_value();
                out["digest"] = hex;
                std::puts(out.dump().c_str());
            } else {
                std::puts(hex.c_str());
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool
