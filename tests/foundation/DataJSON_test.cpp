#include "lmkit/foundation/DataJSON.hpp"

#include <gtest/gtest.h>

#include <map>

namespace lmkit::jsondata {
namespace {

Data bytesOf(std::string_view text) {
    return bytes::toData(text);
}

TEST(DataJSONTest, ToDictionaryAcceptsOnlyObjects) {
    const auto dictionary = toDictionary(bytesOf(R"({"z":1,"a":{"b":[true,null]},"m":"x"})"));
    ASSERT_TRUE(dictionary.has_value());
    // Key order as delivered, nested containers kept.
    std::vector<std::string> keys;
    for (const auto& item : dictionary->items())
        keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_TRUE((*dictionary)["a"]["b"][1].is_null());

    EXPECT_FALSE(toDictionary(bytesOf("[1,2]")));
    EXPECT_FALSE(toDictionary(bytesOf("\"text\"")));
    EXPECT_FALSE(toDictionary(bytesOf("42")));
    EXPECT_FALSE(toDictionary(bytesOf("")));
    EXPECT_FALSE(toDictionary(bytesOf(R"({"a":1)")));  // truncated
    EXPECT_FALSE(toDictionary(bytesOf(R"({"a":1} trailing)")));
    EXPECT_FALSE(toDictionary(Data{'{', '"', 0xFF, '"', ':', '1', '}'}));  // not UTF-8
    EXPECT_TRUE(toDictionary(bytesOf("  {}  ")));
}

TEST(DataJSONTest, ToJSONStringIsPrettyAndNilForUnencodableText) {
    nlohmann::ordered_json value;
    value["name"] = "node";
    value["ports"] = {443, 9999};
    const auto text = toJSONString(value);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(*text, "{\n  \"name\": \"node\",\n  \"ports\": [\n    443,\n    9999\n  ]\n}");
    EXPECT_EQ(nlohmann::ordered_json::parse(*text), value);

    // Any value with a JSON form converts.
    EXPECT_EQ(toJSONString(std::map<std::string, int>{{"a", 1}}), "{\n  \"a\": 1\n}");

    nlohmann::ordered_json bad;
    bad["key"] = std::string("\xC3\x28");
    EXPECT_FALSE(toJSONString(bad));
}

TEST(DataJSONTest, Utf8StringRejectsMalformedSequences) {
    EXPECT_EQ(bytes::UTF8String(bytesOf("héllo €𝄞")), "héllo €𝄞");
    EXPECT_EQ(bytes::UTF8String(Data{}), "");
    EXPECT_FALSE(bytes::UTF8String(Data{0xC3}));                    // cut short
    EXPECT_FALSE(bytes::UTF8String(Data{0xC0, 0xAF}));              // overlong '/'
    EXPECT_FALSE(bytes::UTF8String(Data{0xED, 0xA0, 0x80}));        // surrogate
    EXPECT_FALSE(bytes::UTF8String(Data{0xF4, 0x90, 0x80, 0x80}));  // past U+10FFFF
    EXPECT_FALSE(bytes::UTF8String(Data{0x80}));                    // lone continuation
}

}  // namespace
}  // namespace lmkit::jsondata
