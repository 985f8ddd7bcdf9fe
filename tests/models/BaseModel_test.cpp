#include "lmkit/models/BaseModel.hpp"

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/CollectionHelpers.hpp"
#include "lmkit/models/Transformers.hpp"

namespace lmkit {
namespace {

struct Leaf : Model<Leaf> {
    std::optional<std::string> name;
    static const std::vector<Property<Leaf>>& properties() {
        static const std::vector<Property<Leaf>> table{prop("name", &Leaf::name)};
        return table;
    }
};

struct Sample : Model<Sample> {
    std::optional<std::string> title;
    std::optional<Number> count;
    long mtu = 0;
    bool enabled = false;
    double ratio = 0;
    std::optional<std::string> method;
    std::optional<std::vector<std::string>> tags;
    std::shared_ptr<Leaf> leaf;
    std::optional<std::vector<std::shared_ptr<Leaf>>> leaves;
    long kind = 0;
    std::optional<Number> region;
    std::optional<Json> extra;

    static const std::vector<Property<Sample>>& properties() {
        static const std::vector<Property<Sample>> table{
            prop("title", &Sample::title),
            prop("count", &Sample::count),
            prop("mtu", "config.mtu", &Sample::mtu),
            prop("enabled", "config.enabled", &Sample::enabled),
            prop("ratio", &Sample::ratio),
            prop("method", "tcp_method", &Sample::method).withDefault("XOR"),
            prop("tags", &Sample::tags),
            prop("leaf", &Sample::leaf),
            prop("leaves", &Sample::leaves),
            prop("kind", &Sample::kind, valueMappingTransformer<long>({{"tcp", 1}, {"udp", 2}})),
            prop("region", &Sample::region,
                 valueMappingTransformer<std::optional<Number>>({{"cn", 1}}, Number(0), "other")),
            prop("extra", &Sample::extra),
        };
        return table;
    }
};

struct Bare : Model<Bare> {
    std::optional<std::string> title;
};

TEST(BaseModel, DecodesKeyPathsKindsAndRoundTrips) {
    auto json = Json::parse(R"({"title":"t","count":443,"config":{"mtu":1400,"enabled":true},
        "ratio":0.5,"tcp_method":"AES","tags":[],"leaf":{"name":"a"},
        "leaves":[{"name":"b"},{"name":"c"}],"kind":"udp","region":"cn","extra":{"k":[1,2]},
        "ignored":1})");
    Error error;
    auto s = JSONAdapter::modelOfClass<Sample>(json, &error);
    ASSERT_TRUE(s) << error.localizedDescription();
    // Every value reads into its member (none is held as another kind), and the members write
    // the same document back: each key path and transformer works both ways.
    EXPECT_TRUE(s->valuesOfOtherKind().empty());
    EXPECT_TRUE(s->count->isInteger());
    EXPECT_EQ(s->mtu, 1400);
    ASSERT_EQ(s->leaves->size(), 2u);
    EXPECT_EQ(*(*s->leaves)[1]->name, "c");
    EXPECT_EQ(s->kind, 2);
    EXPECT_EQ(s->region->intValue(), 1);

    auto out = s->toJSONDictionary();
    ASSERT_TRUE(out);
    EXPECT_EQ(out->dump(),
              R"({"title":"t","count":443,"config":{"mtu":1400,"enabled":true},"ratio":0.5,)"
              R"("tcp_method":"AES","tags":[],"leaf":{"name":"a"},"leaves":[{"name":"b"},)"
              R"({"name":"c"}],"kind":"udp","region":"cn","extra":{"k":[1,2]}})");
    auto again = JSONAdapter::modelOfClass<Sample>(*out);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->toJSONDictionary()->dump(), out->dump());
}

TEST(BaseModel, WrongKindsAreKeptAsTheyStandAndDefaultsFillOnlyAbsentKeys) {
    const auto document = Json::parse(
        R"({"title":5,"count":"7","config":"flat","ratio":"x","tags":["a",1],"kind":"sctp",
            "region":"us"})");
    auto s = JSONAdapter::modelOfClass<Sample>(document);
    ASSERT_TRUE(s);
    // The typed members stay nil or zero; the record holds what the service sent.
    EXPECT_FALSE(s->title);
    EXPECT_FALSE(s->count);
    EXPECT_EQ(s->ratio, 0);
    EXPECT_FALSE(s->tags);
    EXPECT_EQ(*s->valueOfOtherKind("title"), 5);
    EXPECT_EQ(*s->valueOfOtherKind("count"), "7");
    EXPECT_EQ(*s->valueOfOtherKind("tags"), Json::parse(R"(["a",1])"));
    EXPECT_FALSE(s->valueOfOtherKind("mtu"));  // "config" is no object: the path is absent
    EXPECT_EQ(s->mtu, 0);
    EXPECT_EQ(s->method, "XOR");  // absent: the default
    EXPECT_FALSE(s->leaf);
    EXPECT_FALSE(s->leaves);
    EXPECT_EQ(s->kind, 0);                // unknown string without a default
    EXPECT_EQ(s->region->intValue(), 0);  // unknown string with the default code

    // Encoding writes the held values back; equality sees them.
    auto again = JSONAdapter::modelOfClass<Sample>(*s->toJSONDictionary());
    EXPECT_EQ(*again->valueOfOtherKind("count"), "7");
    EXPECT_EQ(static_cast<const BaseModel&>(*again), static_cast<const BaseModel&>(*s));
    auto other = JSONAdapter::modelOfClass<Sample>(Json::parse(R"({"count":"8"})"));
    EXPECT_FALSE(static_cast<const BaseModel&>(*other) == static_cast<const BaseModel&>(*s));

    s->region = Number(42);
    auto out = s->toJSONDictionary();
    EXPECT_EQ((*out)["region"], "other");
    EXPECT_EQ((*out)["title"], 5);
    EXPECT_EQ((*out)["tags"], Json::parse(R"(["a",1])"));
    EXPECT_TRUE((*out)["kind"].is_null());

    auto nulls = JSONAdapter::modelOfClass<Sample>(
        Json::parse(R"({"tcp_method":null,"leaf":null,"leaves":null,"tags":null})"));
    ASSERT_TRUE(nulls);
    EXPECT_FALSE(nulls->method);  // an explicit null wins over the default
    EXPECT_FALSE(nulls->tags);
}

TEST(BaseModel, NonObjectRecordValuesFailTheWholeDecode) {
    for (const char* text : {R"({"leaf":"a"})", R"({"leaves":[{"name":"b"},3]})",
                             R"({"leaves":{"name":"b"}})", R"({"leaves":[null]})"}) {
        Error error;
        EXPECT_FALSE(JSONAdapter::modelOfClass<Sample>(Json::parse(text), &error)) << text;
        EXPECT_EQ(error.domain, kJSONAdapterErrorDomain);
        EXPECT_EQ(error.localizedDescription().rfind("lea", 0), 0u) << error.localizedDescription();
    }
    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<Sample>(Json::parse("[1]"), &error));
    EXPECT_FALSE(JSONAdapter::modelsOfClass<Leaf>(Json::parse(R"([{"name":"x"},"y"])")));
    auto leaves = JSONAdapter::modelsOfClass<Leaf>(Json::parse(R"([{"name":"x"},{}])"));
    ASSERT_TRUE(leaves);
    EXPECT_EQ(leaves->size(), 2u);
}

// Decoding from text streams the elements of "leaves"; whatever the document, the outcome must be
// the one of decoding the parsed document: the same record, or the same error.
TEST(BaseModel, TextDecodingGivesWhatTheParsedDocumentGives) {
    for (const char* text : {
             R"({"title":"t","leaves":[{"name":"a"},{"name":"b","x":[1,{"y":[]}]}],"count":2})",
             R"({"leaves":[]})",
             R"({"leaves":null,"tags":["a",["b"]]})",
             R"({"leaves":[{"name":"a"}],"leaves":null})",  // the last of repeated keys holds
             R"({"leaves":"wrong","leaves":[{"name":"c"}]})",
             R"({"leaves":[{"name":"a"}],"leaves":[{"name":"d"}]})",
             R"({"config":{"leaves":[1]},"leaf":{"name":[{"deep":1}]},"extra":[[{}]]})",
             R"({"leaves":[{"name":"b"},3]})",  // errors
             R"({"leaves":[{"name":"b"}, null]})",
             R"({"leaf":"a","leaves":[{}]})",
             R"([{"leaves":[]}])",
             R"("text")",
         }) {
        SCOPED_TRACE(text);
        Error parsedError, textError;
        auto parsed = JSONAdapter::modelOfClass<Sample>(Json::parse(text), &parsedError);
        Json rest;
        auto streamed = JSONAdapter::modelOfClassFromText<Sample>(text, &textError, &rest);
        ASSERT_EQ(bool(parsed), bool(streamed)) << textError.localizedDescription();
        if (!parsed) {
            EXPECT_EQ(textError.localizedDescription(), parsedError.localizedDescription());
            continue;
        }
        EXPECT_EQ(streamed->toJSONDictionary(), parsed->toJSONDictionary());
        // The rest is the document without the streamed array, whose key stays (as null).
        Json expected = Json::parse(text);
        if (expected.contains("leaves") && expected["leaves"].is_array())
            expected["leaves"] = nullptr;
        EXPECT_EQ(rest, expected);
    }
    for (const char* text : {"", "{\"leaves\":[{}", "{\"leaves\":[{}]} x", "{\"a\":tru}"}) {
        Error error;
        EXPECT_FALSE(JSONAdapter::modelOfClassFromText<Sample>(text, &error)) << text;
        EXPECT_NE(error.localizedDescription().find("not valid JSON"), std::string::npos)
            << error.localizedDescription();
    }
}

struct Nested : Model<Nested> {
    std::shared_ptr<Nested> child;
    static const std::vector<Property<Nested>>& properties() {
        static const std::vector<Property<Nested>> table{prop("child", &Nested::child)};
        return table;
    }
};

TEST(BaseModel, HostileNestingFailsInsteadOfExhaustingTheStack) {
    auto nest = [](int depth) {
        std::string text;
        for (int i = 0; i < depth; ++i)
            text += R"({"child":)";
        text += "{}";
        text += std::string(depth, '}');
        return Json::parse(text);
    };
    EXPECT_TRUE(JSONAdapter::modelOfClass<Nested>(nest(100)));
    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<Nested>(nest(100000), &error));
    EXPECT_NE(error.localizedDescription().find("nested deeper"), std::string::npos);
    EXPECT_TRUE(JSONAdapter::modelOfClass<Nested>(nest(100)));  // the depth count unwound
}

TEST(BaseModel, RecordWithoutTableDecodesToEmptyRecord) {
    auto bare = JSONAdapter::modelOfClass<Bare>(Json::parse(R"({"title":"x"})"));
    ASSERT_TRUE(bare);
    EXPECT_FALSE(bare->title);
    EXPECT_EQ(bare->toJSONDictionary()->dump(), "{}");
}

struct Throwing : Model<Throwing> {
    long value = 0;
    static const std::vector<Property<Throwing>>& properties() {
        Transformer<long> failing;
        failing.forward = [](const Json&, long&, Error&) { return true; };
        failing.reverse = [](const long&) -> Json { throw std::runtime_error("no form"); };
        static const std::vector<Property<Throwing>> table{
            prop("value", &Throwing::value, failing)};
        return table;
    }
};

TEST(BaseModel, EncodingFailureLogsAndGivesNil) {
    log::Capture capture;
    Throwing t;
    EXPECT_FALSE(t.toJSONDictionary());
    EXPECT_TRUE(capture.contains("[MTLJSONSerializing] model to json map error: no form"));
}

struct Stamped : Model<Stamped> {
    std::optional<Number> time;
    double seconds = 0;
    std::optional<Number> ip;
    std::optional<Url> link;
    std::optional<RegularExpression> pattern;
    std::optional<std::vector<RegularExpression>> patterns;
    static const std::vector<Property<Stamped>>& properties() {
        static const std::vector<Property<Stamped>> table{
            prop("time", &Stamped::time, timeStampTransformer()),
            prop("seconds", &Stamped::seconds, timeStampTransformer<double>()),
            prop("ip", &Stamped::ip, ipAddressTransformer()),
            prop("link", &Stamped::link, filepickerURLTransformer()),
            prop("pattern", &Stamped::pattern, regularExpressionTransformer()),
            prop("patterns", &Stamped::patterns, regularExpressionsTransformer()),
        };
        return table;
    }
};

TEST(Transformers, TimeStampsKeepTheSinglePrecisionStep) {
    auto s =
        JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"time":1500,"seconds":1700000000123})"));
    EXPECT_DOUBLE_EQ(s->time->doubleValue(), 1.5);
    double expected = static_cast<double>(1700000000123.0f) / 1000.0;
    EXPECT_EQ(s->seconds, expected);
    EXPECT_NE(s->seconds, 1700000000.123);
    EXPECT_EQ((*s->toJSONDictionary())["time"].get<double>(), 1500.0);

    // A numeric text is read as its number; any other kind stays as it stands.
    s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"time":"1500","seconds":"soon"})"));
    EXPECT_DOUBLE_EQ(s->time->doubleValue(), 1.5);
    EXPECT_EQ(s->seconds, 0);
    EXPECT_EQ((*s->toJSONDictionary())["seconds"], "soon");
    s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"time":" 15","ip":7})"));
    EXPECT_FALSE(s->time);
    EXPECT_FALSE(s->ip);
    EXPECT_EQ((*s->toJSONDictionary())["time"], " 15");
    EXPECT_EQ((*s->toJSONDictionary())["ip"], 7);
}

TEST(Transformers, IpAddressesUseInMemoryByteOrder) {
    auto s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"ip":"1.2.3.4"})"));
    EXPECT_EQ(s->ip->unsignedValue(), 67305985u);
    s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"ip":"10.0.0.1"})"));
    EXPECT_EQ(s->ip->unsignedValue(), 16777226u);
    EXPECT_EQ((*s->toJSONDictionary())["ip"], "10.0.0.1");
    s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"ip":"10.0.0"})"));
    EXPECT_EQ(s->ip->unsignedValue(), 0u);
    s = JSONAdapter::modelOfClass<Stamped>(Json::parse(R"({"ip":null})"));
    EXPECT_FALSE(s->ip);
}

TEST(Transformers, UrlsAndRegularExpressions) {
    auto s = JSONAdapter::modelOfClass<Stamped>(Json::parse(
        R"({"link":"https://a.b/c?d=%20e","pattern":"(","patterns":["a+","(","B","(a)\\1"]})"));
    EXPECT_EQ(s->link->absoluteString(), "https://a.b/c?d=%20e");
    EXPECT_EQ(s->link->scheme(), "https");
    EXPECT_FALSE(s->pattern);
    ASSERT_EQ(s->patterns->size(), 3u);
    EXPECT_TRUE((*s->patterns)[1].matchInString(std::optional<std::string>("abc")));
    EXPECT_FALSE((*s->patterns)[0].matchInString(std::optional<std::string>()));
    EXPECT_TRUE((*s->patterns)[2].matchInString("xAa"));
    EXPECT_FALSE((*s->patterns)[2].matchInString("ab"));
    EXPECT_EQ((*s->toJSONDictionary())["patterns"], Json::parse(R"(["a+","B","(a)\\1"])"));

    s = JSONAdapter::modelOfClass<Stamped>(
        Json::parse(R"({"link":"not a url","pattern":"x+y","patterns":null})"));
    EXPECT_FALSE(s->link);
    EXPECT_TRUE(s->pattern->matchInString(std::optional<std::string>("--XXY--")));
    ASSERT_TRUE(s->patterns);
    EXPECT_TRUE(s->patterns->empty());
    // A pattern that backtracks for ever gives up at its time limit and does not match.
    auto evil = RegularExpression::compile("(a+)+$");
    EXPECT_FALSE(evil->matchInString(std::string(100000, 'a') + "!"));
}

TEST(CollectionHelpers, AverageAndDeviation) {
    using namespace collections;
    EXPECT_EQ(averageOfNumbers(Json::parse(R"([1,"x",3])")).doubleValue(), 2.0);
    EXPECT_EQ(averageOfNumbers(Json::parse(R"(["x"])")).kind(), Number::Kind::Integer);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{10, 0, 20}).intValue(), 9999);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{10, 0.0, 20}).intValue(), 9999);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{}).kind(), Number::Kind::Integer);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{1, 2}).doubleValue(), 0.5);
    // sqrt(2/9) = 0.4714... cut to 0.47; 2/3 = 0.666... cut (not rounded) to 0.66.
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{1, 1, 2}).doubleValue(), 0.47);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{1, 3, 1, 3, 1, 3}).doubleValue(), 1.0);
    EXPECT_EQ(deviationOfNumbers(std::vector<Number>{1.0, 1.58}).doubleValue(), 0.29);
    EXPECT_FALSE(randomElement(std::vector<int>{}));
    std::vector<int> values{4, 5, 6};
    for (int i = 0; i < 20; ++i) {
        auto e = randomElement(values);
        EXPECT_TRUE(e && *e >= 4 && *e <= 6);
    }
}

}  // namespace
}  // namespace lmkit
