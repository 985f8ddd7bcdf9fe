// lmkit digest: MD5, SHA-1, SHA-256 or SHA-512 digest (or HMAC) of a file or standard input.
#include <cstdio>
#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/foundation/DataDigest.hpp"

namespace lmkit::tool {
namespace {

struct Algorithm {
    Data (*digest)(const Data&);
    std::uint32_t hmacCode;
};

const std::map<std::string, Algorithm>& algorithms() {
    static const std::map<std::string, Algorithm> table = {
        {"md5", {digest::md5Data, digest::kHmacMD5}},
        {"sha1", {digest::sha1Data, digest::kHmacSHA1}},
        {"sha256", {digest::sha256Data, digest::kHmacSHA256}},
        {"sha512", {digest::sha512Data, digest::kHmacSHA512}},
    };
    return table;
}

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
            const Algorithm& algorithm = algorithms().at(options->algorithm);
            const Data input = readInput(options->input);
            std::optional<Data> result;
            if (options->hmacKey)
                result = digest::hmacDataUsingAlg(input, algorithm.hmacCode,
                                                  bytes::toData(*options->hmacKey));
            else
                result = algorithm.digest(input);
            if (!result)
                throw Failure("cannot compute the " + options->algorithm + " HMAC");
            const std::string hex = digest::hexString(*result);
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
