#include "lmkit/settings/RecordArchiving.hpp"

#include <gtest/gtest.h>

#include "lmkit/foundation/AppMTLDefault.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;

namespace {
std::shared_ptr<AccRoute> route(const char* ip) {
    auto record = std::make_shared<AccRoute>();
    record->ip = ip;
    record->mask = "255.255.255.0";
    record->isVPN = true;
    return record;
}
using RecordArchiving = lmkit::testing::AppGroupTest;
}  // namespace

TEST_F(RecordArchiving, MappedRecordsPlugIntoAppMTLDefaultAndTheArchiver) {
    AppMTLDefault<AccRoute> setting("LMAPIHostKey");
    setting.set(route("10.1.2.0"));
    lmkit::testing::waitForWrites();
    auto stored = defaults_->dataForKey("LMAPIHostKey");
    ASSERT_TRUE(stored);
    auto json = Json::parse(stored->begin(), stored->end());
    EXPECT_EQ(json["ip"], "10.1.2.0");
    auto back = setting.get();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->mask, "255.255.255.0");
    EXPECT_TRUE(back->isVPN);

    // A keyed archive names the record; another record type does not unarchive it.
    std::string error;
    auto archive = keyed_archiver::archive(*route("10.0.0.0"), error);
    ASSERT_TRUE(archive) << error;
    EXPECT_EQ(Json::parse(archive->begin(), archive->end())["class"], "AccRoute");
    EXPECT_TRUE(keyed_archiver::unarchive<AccRoute>(*archive, error));
    EXPECT_FALSE(keyed_archiver::unarchive<HostsConfig>(*archive, error));
    EXPECT_EQ(error, "the archive holds a AccRoute, not a HostsConfig");

    // A JSON value that is no record dictionary reads as nil with the get error.
    AppMTLDefault<HostsConfig> hosts("LMHosts");
    defaults_->setObject(UserDefaults::makeData(std::string_view("[1]")), "LMHosts");
    log::Capture capture;
    EXPECT_FALSE(hosts.get());
    EXPECT_EQ(capture.count("[AppMTLDefault] get value error: "), 1u);
}
