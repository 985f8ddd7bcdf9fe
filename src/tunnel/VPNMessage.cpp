#include "lmkit/tunnel/VPNMessage.hpp"

#include <cmath>
#include <limits>

namespace lmkit {

namespace {

using Json = VPNMessage::Json;
using Path = std::vector<std::string>;

constexpr const char* kCommandKey = "command";
constexpr const char* kPayloadKey = "payload";

// How the decoder names what it found, in its "Expected to decode X but found Y" texts.
std::string foundKind(const Json& value) {
    switch (value.type()) {
        case Json::value_t::object:
            return "a dictionary";
        case Json::value_t::array:
            return "an array";
        case Json::value_t::string:
            return "a string";
        case Json::value_t::boolean:
            return "a bool";
        case Json::value_t::null:
            return "null";
        default:
            return "a number";
    }
}

Path appended(Path path, const std::string& key) {
    path.push_back(key);
    return path;
}

// The value under `key` of the keyed container `object`, which must be present and not null.
DecodeResult<const Json*> requiredValue(const Json& object, const Path& path,
                                        const std::string& key, const std::string& expected) {
    auto found = object.find(key);
    if (found == object.end())
        return DecodingError::keyNotFound(path, key);
    if (found->is_null())
        return DecodingError::valueNotFound(appended(path, key), expected);
    return &*found;
}

DecodeResult<const Json*> keyedContainer(const Json& value, const Path& path) {
    if (!value.is_object())
        return DecodingError::typeMismatch(path, "Dictionary<String, Any>", foundKind(value));
    return &value;
}

DecodeResult<std::string> decodeString(const Json& object, const Path& path,
                                       const std::string& key) {
    auto value = requiredValue(object, path, key, "String");
    if (!value)
        return value.error();
    if (!value.value()->is_string())
        return DecodingError::typeMismatch(appended(path, key), "String",
                                           foundKind(*value.value()));
    return value.value()->get<std::string>();
}

DecodeResult<bool> decodeBool(const Json& object, const Path& path, const std::string& key) {
    auto value = requiredValue(object, path, key, "Bool");
    if (!value)
        return value.error();
    if (!value.value()->is_boolean())
        return DecodingError::typeMismatch(appended(path, key), "Bool", foundKind(*value.value()));
    return value.value()->get<bool>();
}

DecodeResult<std::int64_t> decodeInt(const Json& object, const Path& path, const std::string& key) {
    auto value = requiredValue(object, path, key, "Int");
    if (!value)
        return value.error();
    const Json& number = *value.value();
    if (number.is_number_integer() && !number.is_number_unsigned())
        return number.get<std::int64_t>();
    if (number.is_number_unsigned()) {
        auto unsignedValue = number.get<std::uint64_t>();
        if (unsignedValue <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return static_cast<std::int64_t>(unsignedValue);
    } else if (number.is_number_float()) {
        double d = number.get<double>();
        // 2^63 is exactly representable; anything at or beyond it does not fit.
        if (std::isfinite(d) && d == std::trunc(d) && d >= -9223372036854775808.0 &&
            d < 9223372036854775808.0)
            return static_cast<std::int64_t>(d);
    } else {
        return DecodingError::typeMismatch(appended(path, key), "Int", foundKind(number));
    }
    return DecodingError::dataCorrupted(
        appended(path, key), "Parsed JSON number <" + number.dump() + "> does not fit in Int.");
}

DecodeResult<Data> decodeData(const Json& object, const Path& path, const std::string& key) {
    auto value = requiredValue(object, path, key, "Data");
    if (!value)
        return value.error();
    const Json& text = *value.value();
    // Byte buffers are coded as base64 text: anything else is the wrong type for one.
    if (!text.is_string())
        return DecodingError::typeMismatch(appended(path, key), "String", foundKind(text));
    auto bytes = bytes::base64Decoded(text.get_ref<const std::string&>());
    if (!bytes)
        return DecodingError::dataCorrupted(appended(path, key),
                                            "Encountered Data is not valid Base64.");
    return std::move(*bytes);
}

template <class Message>
DecodeResult<Message> decodeText(std::string_view text) {
    auto json = Json::parse(text.begin(), text.end(), nullptr, false);
    if (json.is_discarded())
        return DecodingError::dataCorrupted({}, "The given data was not valid JSON.");
    return Message::decode(json);
}

std::string base64(const Data& data) {
    return bytes::base64EncodedString(data);
}

}  // namespace

const char* VPNMessage::rawValue(Command command) {
    switch (command) {
        case Command::Boost:
            return "boost";
        case Command::UpdateDualChannelSwitch:
            return "update_dual_channel_switch";
        case Command::ScheduleNetTasks:
            return "schedule_net_tasks";
        case Command::Stop:
            return "stop";
        case Command::Error:
            return "error";
    }
    return "";
}

const char* VPNMessage::Response::rawValue(ErrorKeys key) {
    return key == ErrorKeys::Code ? "code" : "message";
}

VPNMessage::Command VPNMessage::Request::command() const {
    struct Visitor {
        Command operator()(const Boost&) const { return Command::Boost; }
        Command operator()(const UpdateDualChannelSwitch&) const {
            return Command::UpdateDualChannelSwitch;
        }
        Command operator()(const ScheduleNetTasks&) const { return Command::ScheduleNetTasks; }
        Command operator()(const Stop&) const { return Command::Stop; }
    };
    return std::visit(Visitor{}, value);
}

Json VPNMessage::Request::encode() const {
    Json json = Json::object();
    json[kCommandKey] = rawValue(command());
    if (auto* boost = std::get_if<Boost>(&value))
        json[kPayloadKey] = base64(boost->data);
    else if (auto* update = std::get_if<UpdateDualChannelSwitch>(&value))
        json[kPayloadKey] = update->on;
    else if (auto* tasks = std::get_if<ScheduleNetTasks>(&value))
        json[kPayloadKey] = base64(tasks->tasks);
    return json;
}

DecodeResult<VPNMessage::Request> VPNMessage::Request::decode(const Json& json) {
    auto container = keyedContainer(json, {});
    if (!container)
        return container.error();
    auto command = decodeString(json, {}, kCommandKey);
    if (!command)
        return command.error();
    const std::string& name = command.value();
    if (name == rawValue(Command::Boost)) {
        auto data = decodeData(json, {}, kPayloadKey);
        if (!data)
            return data.error();
        return Request::boost(std::move(data.value()));
    }
    if (name == rawValue(Command::UpdateDualChannelSwitch)) {
        auto on = decodeBool(json, {}, kPayloadKey);
        if (!on)
            return on.error();
        return Request::updateDualChannelSwitch(on.value());
    }
    if (name == rawValue(Command::ScheduleNetTasks)) {
        auto tasks = decodeData(json, {}, kPayloadKey);
        if (!tasks)
            return tasks.error();
        return Request::scheduleNetTasks(std::move(tasks.value()));
    }
    if (name == rawValue(Command::Stop))
        return Request::stop();
    return DecodingError::dataCorrupted({kCommandKey}, "Unrecognized request command: " + name);
}

DecodeResult<VPNMessage::Request> VPNMessage::Request::decode(std::string_view text) {
    return decodeText<Request>(text);
}

VPNMessage::Command VPNMessage::Response::command() const {
    struct Visitor {
        Command operator()(const Error&) const { return Command::Error; }
        Command operator()(const Boost&) const { return Command::Boost; }
        Command operator()(const Stop&) const { return Command::Stop; }
    };
    return std::visit(Visitor{}, value);
}

Json VPNMessage::Response::encode() const {
    Json json = Json::object();
    json[kCommandKey] = VPNMessage::rawValue(command());
    if (auto* error = std::get_if<Error>(&value)) {
        Json payload = Json::object();
        payload[rawValue(ErrorKeys::Code)] = error->code;
        payload[rawValue(ErrorKeys::Message)] = error->message;
        json[kPayloadKey] = std::move(payload);
    } else if (auto* boost = std::get_if<Boost>(&value)) {
        if (boost->data)
            json[kPayloadKey] = base64(*boost->data);
    }
    return json;
}

DecodeResult<VPNMessage::Response> VPNMessage::Response::decode(const Json& json) {
    auto container = keyedContainer(json, {});
    if (!container)
        return container.error();
    auto command = decodeString(json, {}, kCommandKey);
    if (!command)
        return command.error();
    const std::string& name = command.value();
    if (name == VPNMessage::rawValue(Command::Error)) {
        auto payload = requiredValue(json, {}, kPayloadKey, "Dictionary<String, Any>");
        if (!payload)
            return payload.error();
        Path path{kPayloadKey};
        auto nested = keyedContainer(*payload.value(), path);
        if (!nested)
            return nested.error();
        auto code = decodeInt(*payload.value(), path, rawValue(ErrorKeys::Code));
        if (!code)
            return code.error();
        auto message = decodeString(*payload.value(), path, rawValue(ErrorKeys::Message));
        if (!message)
            return message.error();
        return Response::error(code.value(), std::move(message.value()));
    }
    if (name == VPNMessage::rawValue(Command::Boost)) {
        // The bytes are optional: an absent or null payload is a boost answer without data.
        auto found = json.find(kPayloadKey);
        if (found == json.end() || found->is_null())
            return Response::boost(std::nullopt);
        auto data = decodeData(json, {}, kPayloadKey);
        if (!data)
            return data.error();
        return Response::boost(std::move(data.value()));
    }
    if (name == VPNMessage::rawValue(Command::Stop))
        return Response::stop();
    return DecodingError::dataCorrupted({kCommandKey}, "Unrecognized response command: " + name);
}

DecodeResult<VPNMessage::Response> VPNMessage::Response::decode(std::string_view text) {
    return decodeText<Response>(text);
}

}  // namespace lmkit
