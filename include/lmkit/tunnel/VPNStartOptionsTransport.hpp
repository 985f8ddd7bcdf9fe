#pragma once

// How the start options cross from the app to the tunnel extension: the app writes the record's
// JSON form as one text into the start request; the extension reads that text back as
// VPNSimpleStartOptions, which shares the key table of VPNStartOptions and ignores the three
// keys only the app side has ("mtu", "routes", "grpConfig").

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "lmkit/models/VPNSimpleStartOptions.hpp"
#include "lmkit/models/VPNStartOptions.hpp"

namespace lmkit {

class VPNStartOptionsTransport {
  public:
    /// The start request's text: the record's JSON form in compact form. Nil (with `error` set)
    /// when the record has no JSON form or holds text that is not valid UTF-8.
    static std::optional<std::string> encode(const VPNStartOptions& options,
                                             Error* error = nullptr);

    /// The tunnel's options from the start request's text. Nil (with `error` set, and a line on
    /// the tunnel log) when the text is not JSON or does not decode as start options.
    static std::shared_ptr<VPNSimpleStartOptions> decode(std::string_view text,
                                                         Error* error = nullptr);
    /// The same from a dictionary already parsed.
    static std::shared_ptr<VPNSimpleStartOptions> decodeDictionary(const Json& dictionary,
                                                                   Error* error = nullptr);
};

}  // namespace lmkit
