// Arbitrary bytes as the JSON of a VPNMessage request or response, and as a file found in the
// message channel's directory: both come from the other process, so no input may crash, throw
// or half-decode. Whatever decodes must encode to a document that decodes to the same message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/tunnel/VPNMessage.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"

namespace {

template <class Message>
void roundTrip(std::string_view text) {
    auto decoded = Message::decode(text);
    if (!decoded)
        return;
    auto again = Message::decode(std::string_view(decoded.value().encodedString()));
    if (!again || !(again.value() == decoded.value()))
        std::abort();
}

template <class T>
void tryAs(const lmkit::WormholeMessageObject& object) {
    std::string error;
    if (auto record = object.as<T>(error))
        (void)record->toJSONDictionary();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        lmkit::log::setFileLoggingEnabled(false);
        return true;
    }();
    (void)quiet;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    roundTrip<lmkit::VPNMessage::Request>(text);
    roundTrip<lmkit::VPNMessage::Response>(text);

    std::string error;
    auto object = lmkit::WormholeMessageObject::unarchive(
        std::vector<std::uint8_t>(data, data + size), error);
    if (!object)
        return 0;
    tryAs<lmkit::SocksInfo>(*object);
    tryAs<lmkit::VPNMessageDelayQuery>(*object);
    tryAs<lmkit::VPNMessageDelayResponse>(*object);
    tryAs<lmkit::VPNMessageLossQuery>(*object);
    tryAs<lmkit::VPNMessageLossResponse>(*object);
    if (object->archivedData(error) && !error.empty())
        std::abort();
    return 0;
}
