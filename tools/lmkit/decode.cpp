// lmkit decode: reads a service document as one record type and prints the record's JSON form,
// which shows how the kit understood it (nil properties as null, converted values back in
// their delivered shape).
#include <fmt/format.h>

#include <iostream>
#include <map>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/models/APIResponses.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/models/StartupConfig.hpp"

namespace lmkit::tool {
namespace {

using Decoder = std::function<std::optional<Json>(const Json&, Error&)>;

template <class R>
Decoder decoderOf() {
    return [](const Json& json, Error& error) -> std::optional<Json> {
        auto record = JSONAdapter::modelOfClass<R>(json, &error);
        if (!record)
            return std::nullopt;
        auto back = record->toJSONDictionary();
        if (!back)
            error = Error::withDescription("lmkit", 1, "the record has no JSON form");
        return back;
    };
}

const std::map<std::string, Decoder>& decoders() {
    static const std::map<std::string, Decoder> table{
        {"AccAPIResponseObject", decoderOf<AccAPIResponseObject>()},
        {"AccConfig", decoderOf<AccConfig>()},
        {"AccNode", decoderOf<AccNode>()},
        {"AccScoreConfig", decoderOf<AccScoreConfig>()},
        {"AppVersionModel", decoderOf<AppVersionModel>()},
        {"ConfigAPIResponseObject", decoderOf<ConfigAPIResponseObject>()},
        {"Game", decoderOf<Game>()},
        {"GameBoostListAPIResponse", decoderOf<GameBoostListAPIResponse>()},
        {"GameSearchAPIResponse", decoderOf<GameSearchAPIResponse>()},
        {"NodeInfo", decoderOf<NodeInfo>()},
        {"NoticeAPIResponseObject", decoderOf<NoticeAPIResponseObject>()},
        {"StartupConfig", decoderOf<StartupConfig>()},
        {"TopSearchAPIResponse", decoderOf<TopSearchAPIResponse>()},
    };
    return table;
}

struct DecodeOptions {
    std::string type;
    std::string input;
    bool list = false;
};

Command decode(
    "decode", "Decode a service JSON document as a record type and print its JSON form",
    [](CLI::App& app, Common&) {
        auto options = std::make_shared<DecodeOptions>();
        app.add_flag("--list", options->list, "List the record types");
        app.add_option("type", options->type, "Record type, such as AccNode");
        app.add_option("file", options->input,
                       "Document to decode (standard input when absent or -)");
        return [options]() -> int {
            if (options->list) {
                for (const auto& [name, decoder] : decoders())
                    std::cout << name << '\n';
                return 0;
            }
            auto decoder = decoders().find(options->type);
            if (decoder == decoders().end())
                throw Failure(fmt::format("unknown record type \"{}\" (see lmkit decode --list)",
                                          options->type));
            const Data input = readInput(options->input);
            Json json = Json::parse(input.begin(), input.end(), nullptr, false);
            if (json.is_discarded())
                throw Failure(fmt::format("{}: the input is not valid JSON", options->type));
            Error error;
            auto out = decoder->second(json, error);
            if (!out)
                throw Failure(fmt::format("{}: {}", options->type, error.localizedDescription()));
            std::cout << out->dump(2) << '\n';
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool
