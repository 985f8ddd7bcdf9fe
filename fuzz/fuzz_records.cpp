// Untrusted service documents: every record the service delivers on its own decodes arbitrary
// JSON without crashing, and a record that decoded encodes and decodes again.
#include <cstdint>
#include <cstdlib>

#include "lmkit/models/APIResponses.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/AccMultipathConfig.hpp"
#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/AutoRegionLockConfig.hpp"
#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/GRPConfig.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "lmkit/models/NetspeedTask.hpp"
#include "lmkit/models/QosConfig.hpp"
#include "lmkit/models/RouteDomain.hpp"
#include "lmkit/models/SocksInfo.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/models/UnstableNetworkConfig.hpp"

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
    roundTrip<lmkit::TopSearchAPIResponse>(json);
    roundTrip<lmkit::GameBoostListAPIResponse>(json);
    roundTrip<lmkit::AccConfig>(json);
    roundTrip<lmkit::AccMultipathConfig>(json);
    roundTrip<lmkit::BanListItem>(json);
    roundTrip<lmkit::RouteDomain>(json);
    roundTrip<lmkit::HostsConfig>(json);
    roundTrip<lmkit::SocksInfo>(json);
    roundTrip<lmkit::QosConfig>(json);
    roundTrip<lmkit::AccRoute>(json);
    roundTrip<lmkit::UnstableNetworkConfig>(json);
    roundTrip<lmkit::AutoRegionLockConfig>(json);
    roundTrip<lmkit::NetspeedTask>(json);
    roundTrip<lmkit::GRPConfig>(json);
    return 0;
}
