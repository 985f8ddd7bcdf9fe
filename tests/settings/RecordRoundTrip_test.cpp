// Every record type, generated from the record registry: a document with every field set decodes,
// encodes and decodes again to the same record, as JSON and as the keyed archive the settings
// keep; nothing is invented and nothing is lost.
#include <gtest/gtest.h>

#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/models/RecordRegistry.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/settings/APIHost.hpp"
#include "lmkit/settings/OpenAppAlertInfo.hpp"
#include "lmkit/settings/RecordArchiving.hpp"
#include "lmkit/settings/SplashScreenConfig.hpp"

using namespace lmkit;

namespace {

// Whether `whole` holds every value of `part` at the same place (records may add their nil
// properties as nulls, numbers compare by value).
bool holds(const Json& whole, const Json& part, std::string at, std::string& where) {
    if (part.is_object()) {
        if (!whole.is_object()) {
            where = at;
            return false;
        }
        for (const auto& [key, value] : part.items()) {
            auto found = whole.find(key);
            if (found == whole.end()) {
                where = at + "." + key + " (missing)";
                return false;
            }
            if (!holds(*found, value, at + "." + key, where))
                return false;
        }
        return true;
    }
    if (part.is_array()) {
        if (!whole.is_array() || whole.size() != part.size()) {
            where = at;
            return false;
        }
        for (std::size_t i = 0; i < part.size(); ++i)
            if (!holds(whole[i], part[i], at + "[" + std::to_string(i) + "]", where))
                return false;
        return true;
    }
    if (whole != part)
        where = at + ": " + whole.dump() + " instead of " + part.dump();
    return whole == part;
}

std::vector<RecordType> allTypes() {
    auto types = recordTypes();
    types.push_back(recordTypeOf<APIHost>("APIHost"));
    types.push_back(recordTypeOf<OpenAppAlertInfo>("OpenAppAlertInfo"));
    types.push_back(recordTypeOf<SplashScreenConfig>("SplashScreenConfig"));
    return types;
}

}  // namespace

TEST(RecordRoundTrip, EveryRecordTypeSurvivesJsonAndArchive) {
    auto types = allTypes();
    ASSERT_GT(types.size(), 60u);
    for (const auto& type : types) {
        SCOPED_TRACE(type.name);
        const Json document = type.sampleDocument();
        Error error;
        auto first = type.decode(document, &error);
        ASSERT_TRUE(first) << error.localizedDescription() << "\n" << document.dump();
        // The sample is of each property's own kind: nothing is held as another kind.
        EXPECT_TRUE(first->valuesOfOtherKind().empty())
            << first->valuesOfOtherKind().begin()->first;
        auto encoded = first->toJSONDictionary();
        ASSERT_TRUE(encoded);
        std::string where;
        EXPECT_TRUE(holds(*encoded, document, type.name, where)) << "lost " << where;

        auto second = type.decode(*encoded, &error);
        ASSERT_TRUE(second) << error.localizedDescription();
        EXPECT_EQ(second->toJSONDictionary(), encoded);

        // Decoding the text as it is parsed gives the same record, and each property's text is
        // its value in the record's JSON form.
        auto streamed = type.decodeText(document.dump(), &error, nullptr);
        ASSERT_TRUE(streamed) << error.localizedDescription();
        EXPECT_EQ(streamed->toJSONDictionary(), encoded);
        const auto properties = type.properties();
        for (std::size_t i = 0; i < properties.size(); ++i) {
            const auto& keyPath = properties[i].keyPath;
            bool alone = keyPath.find('.') == std::string::npos;
            for (std::size_t j = 0; j < properties.size(); ++j)
                if (j != i && (properties[j].keyPath == keyPath ||
                               properties[j].keyPath.rfind(keyPath + ".", 0) == 0))
                    alone = false;
            if (!alone)
                continue;  // shares its key with another property in the JSON form
            std::string text;
            type.dumpProperty(*first, i, [&](std::string_view piece) { text += piece; });
            EXPECT_EQ(Json::parse(text), (*encoded)[keyPath]) << properties[i].name;
        }

        std::string problem;
        auto archive = keyed_archiver::archivedData(type.name, *encoded, problem);
        ASSERT_TRUE(archive) << problem;
        auto unarchived = keyed_archiver::unarchivedJSON(*archive, type.name, problem);
        ASSERT_TRUE(unarchived) << problem;
        auto third = type.decode(*unarchived, &error);
        ASSERT_TRUE(third) << error.localizedDescription();
        EXPECT_EQ(third->toJSONDictionary(), encoded);

        // An empty document invents nothing on the way through encoding.
        auto empty = type.decode(Json::object(), &error);
        ASSERT_TRUE(empty);
        auto again = type.decode(*empty->toJSONDictionary(), &error);
        ASSERT_TRUE(again);
        EXPECT_EQ(again->toJSONDictionary(), empty->toJSONDictionary());
    }
}

TEST(RecordRoundTrip, ArchivedStartupConfigGainsNoGrayscaleSwitch) {
    auto config =
        JSONAdapter::modelOfClass<StartupConfig>(Json::parse(R"({"enable_dual_channel":true})"));
    ASSERT_TRUE(config);
    std::string error;
    auto archive = keyed_archiver::archive(*config, error);
    ASSERT_TRUE(archive) << error;
    auto back = keyed_archiver::unarchive<StartupConfig>(*archive, error);
    ASSERT_TRUE(back) << error;
    EXPECT_FALSE(back->grayScaleSwitch);
    EXPECT_TRUE(back->enableDualChannel);
}
