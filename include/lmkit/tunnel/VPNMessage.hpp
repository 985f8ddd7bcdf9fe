#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/Data.hpp"
#include "lmkit/tunnel/DecodingError.hpp"

namespace lmkit {

/// The direct messages between the app and the running tunnel provider: each request carries one
/// command and gets one response. Both are coded as one JSON object with the keys "command" (text)
/// and "payload"; byte buffers travel as standard base64 text.
struct VPNMessage {
    using Json = nlohmann::ordered_json;

    /// Every command text either side sends.
    enum class Command { Boost, UpdateDualChannelSwitch, ScheduleNetTasks, Stop, Error };
    /// The text of `command` ("boost", "update_dual_channel_switch", "schedule_net_tasks",
    /// "stop", "error").
    static const char* rawValue(Command command);

    /// What the app asks of the tunnel.
    struct Request {
        struct Boost {
            Data data;  // opaque to the kit
            bool operator==(const Boost&) const = default;
        };
        struct UpdateDualChannelSwitch {
            bool on = false;  // the new state of the dual-channel switch
            bool operator==(const UpdateDualChannelSwitch&) const = default;
        };
        struct ScheduleNetTasks {
            Data tasks;  // the encoded network tasks to run, opaque to the kit
            bool operator==(const ScheduleNetTasks&) const = default;
        };
        struct Stop {
            bool operator==(const Stop&) const = default;
        };
        using Case = std::variant<Boost, UpdateDualChannelSwitch, ScheduleNetTasks, Stop>;

        Case value = Stop{};

        static Request boost(Data data) { return {Boost{std::move(data)}}; }
        static Request updateDualChannelSwitch(bool on) { return {UpdateDualChannelSwitch{on}}; }
        static Request scheduleNetTasks(Data tasks) { return {ScheduleNetTasks{std::move(tasks)}}; }
        static Request stop() { return {Stop{}}; }

        Command command() const;

        /// {"command": ..., "payload": ...}; "payload" only for cases that carry one.
        Json encode() const;
        std::string encodedString() const { return encode().dump(); }
        static DecodeResult<Request> decode(const Json& json);
        /// Decodes JSON text; text that is not JSON fails as corrupt data at the root.
        static DecodeResult<Request> decode(std::string_view text);

        bool operator==(const Request&) const = default;
    };

    /// What the tunnel answers.
    struct Response {
        /// Keys of the error payload.
        enum class ErrorKeys { Code, Message };
        static const char* rawValue(ErrorKeys key);

        struct Error {
            std::int64_t code = 0;
            std::string message;
            bool operator==(const Error&) const = default;
        };
        struct Boost {
            std::optional<Data> data;  // the "payload" key is left out when there is none
            bool operator==(const Boost&) const = default;
        };
        struct Stop {
            bool operator==(const Stop&) const = default;
        };
        using Case = std::variant<Error, Boost, Stop>;

        Case value = Stop{};

        static Response error(std::int64_t code, std::string message) {
            return {Error{code, std::move(message)}};
        }
        static Response boost(std::optional<Data> data) { return {Boost{std::move(data)}}; }
        static Response stop() { return {Stop{}}; }

        Command command() const;

        Json encode() const;
        std::string encodedString() const { return encode().dump(); }
        static DecodeResult<Response> decode(const Json& json);
        static DecodeResult<Response> decode(std::string_view text);

        bool operator==(const Response&) const = default;
    };
};

}  // namespace lmkit
