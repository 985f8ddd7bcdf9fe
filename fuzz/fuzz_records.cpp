// Untrusted service documents: every top-level record decodes arbitrary JSON without crashing,
// and a record that decoded encodes and decodes again.
#include <cstdint>
#include <cstdlib>

#include "lmkit/models/APIResponses.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/StartupConfig.hpp"

namespace {

template <class R>
void roundTrip(const lmkit::Json& json) {
    auto record = lmkit::JSONAdapter::modelOfClass<R>(json);
    if (!record)
        return;
    auto back = record->toJSONDictionary();
    if (!back || !lmkit::JSONAdapter::modelOfClass<R>(*back))
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    auto json = lmkit::Json::parse(bytes, bytes + size, nullptr, false);
    if (json.is_discarded())
        return 0;
    roundTrip<lmkit::AccAPIResponseObject>(json);
    roundTrip<lmkit::StartupConfig>(json);
    roundTrip<lmkit::ConfigAPIResponseObject>(json);
    roundTrip<lmkit::Game>(json);
    roundTrip<lmkit::AccNode>(json);
    roundTrip<lmkit::GameSearchAPIResponse>(json);
    roundTrip<lmkit::AppVersionModel>(json);
    roundTrip<lmkit::NoticeAPIResponseObject>(json);
    return 0;
}
