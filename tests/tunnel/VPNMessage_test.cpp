#include "lmkit/tunnel/VPNMessage.hpp"

#include <gtest/gtest.h>

using namespace lmkit;
using Json = VPNMessage::Json;
using Request = VPNMessage::Request;
using Response = VPNMessage::Response;

namespace {

Data bytesOf(std::string_view text) {
    return Data(text.begin(), text.end());
}

// The error of a decode that must fail.
template <class Message>
DecodingError failure(std::string_view text) {
    auto result = Message::decode(text);
    EXPECT_FALSE(result.ok()) << text;
    return result.error();
}

}  // namespace

TEST(VPNMessageTest, RequestsEncodeCommandThenPayloadAndDecodeBack) {
    struct Case {
        Request request;
        const char* json;
    };
    const Case cases[] = {
        {Request::boost(bytesOf(std::string_view("hi\x00\xff", 4))),
         R"({"command":"boost","payload":"aGkA/w=="})"},
        {Request::updateDualChannelSwitch(true),
         R"({"command":"update_dual_channel_switch","payload":true})"},
        {Request::updateDualChannelSwitch(false),
         R"({"command":"update_dual_channel_switch","payload":false})"},
        {Request::scheduleNetTasks({}), R"({"command":"schedule_net_tasks","payload":""})"},
        {Request::stop(), R"({"command":"stop"})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.request.encodedString(), c.json);
        auto decoded = Request::decode(std::string_view(c.json));
        ASSERT_TRUE(decoded.ok()) << c.json << ": " << decoded.error().localizedDescription();
        EXPECT_EQ(decoded.value(), c.request) << c.json;
    }
    // Key order on the wire does not matter to the decoder, and a payload beside "stop" is
    // ignored.
    auto reordered = Request::decode(std::string_view(R"({"payload":"AQI=","command":"boost"})"));
    ASSERT_TRUE(reordered.ok());
    EXPECT_EQ(reordered.value(), Request::boost(Data{1, 2}));
    auto stop = Request::decode(std::string_view(R"({"command":"stop","payload":[1,2]})"));
    ASSERT_TRUE(stop.ok());
    EXPECT_EQ(stop.value().command(), VPNMessage::Command::Stop);
}

TEST(VPNMessageTest, ResponsesEncodeTheirPayloadsAndDecodeBack) {
    struct Case {
        Response response;
        const char* json;
    };
    const Case cases[] = {
        {Response::error(-7, "no tunnel"),
         R"({"command":"error","payload":{"code":-7,"message":"no tunnel"}})"},
        {Response::boost(bytesOf("ok")), R"({"command":"boost","payload":"b2s="})"},
        {Response::boost(std::nullopt), R"({"command":"boost"})"},
        {Response::stop(), R"({"command":"stop"})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.response.encodedString(), c.json);
        auto decoded = Response::decode(std::string_view(c.json));
        ASSERT_TRUE(decoded.ok()) << c.json << ": " << decoded.error().localizedDescription();
        EXPECT_EQ(decoded.value(), c.response) << c.json;
    }
    // A boost answer with a null payload has no bytes; an integral float is a valid code.
    auto nullBoost = Response::decode(std::string_view(R"({"command":"boost","payload":null})"));
    ASSERT_TRUE(nullBoost.ok());
    EXPECT_EQ(nullBoost.value(), Response::boost(std::nullopt));
    auto floatCode = Response::decode(
        std::string_view(R"({"command":"error","payload":{"message":"m","code":3.0}})"));
    ASSERT_TRUE(floatCode.ok());
    EXPECT_EQ(floatCode.value(), Response::error(3, "m"));
    auto stop = Response::decode(std::string_view(R"({"command":"stop","payload":"x"})"));
    ASSERT_TRUE(stop.ok());
    EXPECT_EQ(stop.value(), Response::stop());
}

// Every refused text names the decoder's own kind of error, the path to the failing value and
// its description; unknown commands are corrupt data on the command key ("error" is a response
// command only).
TEST(VPNMessageTest, UnknownCommandsAndMissingOrMistypedValuesFailWithTheDecodersOwnError) {
    using Kind = DecodingError::Kind;
    constexpr bool kRequest = true, kResponse = false;
    struct Case {
        const char* json;
        bool request;
        Kind kind;
        const char* path;  // the coding path, dot-separated
        const char* description;
    };
    const Case cases[] = {
        {R"({"command":"Stop"})", kRequest, Kind::DataCorrupted, "command",
         "Unrecognized request command: Stop"},
        {R"({"command":"error","payload":{"code":1,"message":""}})", kRequest, Kind::DataCorrupted,
         "command", "Unrecognized request command: error"},
        {R"({"command":""})", kRequest, Kind::DataCorrupted, "command",
         "Unrecognized request command: "},
        {R"({"command":"schedule_net_tasks","payload":""})", kResponse, Kind::DataCorrupted,
         "command", "Unrecognized response command: schedule_net_tasks"},
        {R"({"command":"BOOST"})", kResponse, Kind::DataCorrupted, "command",
         "Unrecognized response command: BOOST"},
        {R"({"command":"boost"})", kRequest, Kind::KeyNotFound, "",
         "No value associated with key \"payload\"."},
        {R"({"command":"boost","payload":null})", kRequest, Kind::ValueNotFound, "payload",
         "Expected Data value but found null instead."},
        {R"({"command":"boost","payload":"!!"})", kRequest, Kind::DataCorrupted, "payload",
         "Encountered Data is not valid Base64."},
        {R"({"command":"schedule_net_tasks","payload":[1]})", kRequest, Kind::TypeMismatch,
         "payload", "Expected to decode String but found an array instead."},
        {R"({"command":"update_dual_channel_switch","payload":1})", kRequest, Kind::TypeMismatch,
         "payload", "Expected to decode Bool but found a number instead."},
        {R"({"command":"update_dual_channel_switch","payload":"true"})", kRequest,
         Kind::TypeMismatch, "payload", "Expected to decode Bool but found a string instead."},
        {R"({"payload":true})", kRequest, Kind::KeyNotFound, "",
         "No value associated with key \"command\"."},
        {R"({"command":7})", kResponse, Kind::TypeMismatch, "command",
         "Expected to decode String but found a number instead."},
        {R"(["stop"])", kResponse, Kind::TypeMismatch, "",
         "Expected to decode Dictionary<String, Any> but found an array instead."},
        {R"({"command":"stop")", kResponse, Kind::DataCorrupted, "",
         "The given data was not valid JSON."},
        {R"({"command":"error"})", kResponse, Kind::KeyNotFound, "",
         "No value associated with key \"payload\"."},
        {R"({"command":"error","payload":"x"})", kResponse, Kind::TypeMismatch, "payload",
         "Expected to decode Dictionary<String, Any> but found a string instead."},
        {R"({"command":"error","payload":{"message":"m"}})", kResponse, Kind::KeyNotFound,
         "payload", "No value associated with key \"code\"."},
        {R"({"command":"error","payload":{"code":1}})", kResponse, Kind::KeyNotFound, "payload",
         "No value associated with key \"message\"."},
        {R"({"command":"error","payload":{"code":1.5,"message":"m"}})", kResponse,
         Kind::DataCorrupted, "payload.code", "Parsed JSON number <1.5> does not fit in Int."},
        {R"({"command":"error","payload":{"code":9223372036854775808,"message":"m"}})", kResponse,
         Kind::DataCorrupted, "payload.code",
         "Parsed JSON number <9223372036854775808> does not fit in Int."},
        {R"({"command":"error","payload":{"code":true,"message":"m"}})", kResponse,
         Kind::TypeMismatch, "payload.code", "Expected to decode Int but found a bool instead."},
        {R"({"command":"error","payload":{"code":1,"message":null}})", kResponse,
         Kind::ValueNotFound, "payload.message", "Expected String value but found null instead."},
        {R"({"command":"boost","payload":5})", kResponse, Kind::TypeMismatch, "payload",
         "Expected to decode String but found a number instead."},
    };
    for (const auto& c : cases) {
        auto error = c.request ? failure<Request>(c.json) : failure<Response>(c.json);
        std::string path;
        for (const auto& key : error.codingPath)
            path += (path.empty() ? "" : ".") + key;
        EXPECT_EQ(error.kind, c.kind) << c.json;
        EXPECT_EQ(path, c.path) << c.json;
        EXPECT_EQ(error.debugDescription, c.description) << c.json;
    }
    EXPECT_EQ(failure<Response>(R"({"command":"error","payload":{"code":1.5,"message":"m"}})")
                  .localizedDescription(),
              "data corrupted at payload.code: Parsed JSON number <1.5> does not fit in Int.");
}

TEST(VPNMessageTest, ADefaultResultIsAnError) {
    DecodeResult<Request> nothing;
    EXPECT_FALSE(nothing.ok());
    EXPECT_EQ(nothing.error().kind, DecodingError::Kind::DataCorrupted);
}
