// lmkit crypt: the kit's text-keyed encryption (base64 text of AES-128-ECB) and its reverse.
#include <cstdio>
#include <optional>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/foundation/DataCrypto.hpp"

namespace lmkit::tool {
namespace {

struct CryptOptions {
    std::string operation;
    std::string key;
    std::optional<std::string> text;
};

Data inputText(const CryptOptions& options) {
    if (options.text)
        return bytes::toData(*options.text);
    Data data = readInput("", kDefaultMaxInputBytes);
    // Text read from a pipe or a terminal ends with the line break that closed it.
    if (!data.empty() && data.back() == '\n')
        data.pop_back();
    if (!data.empty() && data.back() == '\r')
        data.pop_back();
    return data;
}

Command crypt("crypt", "Encrypt text to base64, or decrypt it, with a text key",
              [](CLI::App& app, Common& common) {
                  auto options = std::make_shared<CryptOptions>();
                  app.add_option("operation", options->operation, "encrypt or decrypt")
                      ->required()
                      ->check(CLI::IsMember({"encrypt", "decrypt"}));
                  app.add_option("--key", options->key, "The key text")->required();
                  app.add_option("text", options->text,
                                 "Text to encrypt or base64 to decrypt (standard input when "
                                 "absent; one final line break is dropped)");
                  app.add_flag("--json", common.json, "Print data as JSON");
                  return [options, &common]() -> int {
                      const Data input = inputText(*options);
                      const bool encrypting = options->operation == "encrypt";
                      const std::optional<Data> result =
                          encrypting ? crypto::encrypted(input, options->key)
                                     : crypto::decrypted(input, options->key);
                      if (!result) {
                          throw Failure(encrypting ? "cannot encrypt the input"
                                                   : "cannot decrypt: not base64 of a "
                                                     "ciphertext, or the wrong key");
                      }
                      if (common.json) {
                          nlohmann::ordered_json out;
                          const std::optional<std::string> text = bytes::UTF8String(*result);
                          if (encrypting)
                              out["ciphertext"] = *text;
                          else if (text)
                              out["plaintext"] = *text;
                          else
                              out["plaintextBase64"] = bytes::base64EncodedString(*result);
                          std::puts(out.dump().c_str());
                          return 0;
                      }
                      Data line = *result;
                      line.push_back('\n');
                      writeOutput("", line);
                      return 0;
                  };
              });

}  // namespace
}  // namespace lmkit::tool
