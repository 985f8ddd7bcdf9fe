#include "lmkit/netinfo/IPAddressString.hpp"

#include <gtest/gtest.h>

using namespace lmkit::ipaddress;

TEST(IPAddressString, EmbeddedIPv4ComesFromTheLastTwoGroups) {
    EXPECT_EQ(convert2IPV4Address("64:ff9b::c0a8:101"), "192.168.1.1");
    EXPECT_EQ(convert2IPV4Address("a:b"), "0.10.0.11");
    EXPECT_EQ(convert2IPV4Address("::c0a8:101:5"), "1.1.0.5");
    EXPECT_EQ(convert2IPV4Address("64:ff9b::zz01:0203"), "0.1.2.3");  // unreadable piece is 0
    EXPECT_EQ(convert2IPV4Address("1.2.3.4"), std::nullopt);
    EXPECT_EQ(convert2IPV4Address("::FFFF:1.2.3.4"), std::nullopt);
    EXPECT_EQ(convert2IPV4Address("::12345:1"), std::nullopt);  // five digits: five pieces
    EXPECT_EQ(convert2IPV4Address(""), std::nullopt);
    // What convert2IPV6Address makes is the dotted form, which does not convert back.
    auto mapped = convert2IPV6Address(std::string("1.2.3.4"));
    EXPECT_EQ(mapped, "::FFFF:1.2.3.4");
    EXPECT_EQ(convert2IPV4Address(*mapped), std::nullopt);
    EXPECT_EQ(convert2IPV6Address(std::nullopt), std::nullopt);
}

TEST(IPAddressString, DigitsAreUnicodeDecimalDigits) {
    EXPECT_TRUE(isAllDigits(""));
    EXPECT_TRUE(isAllDigits("0123456789"));
    EXPECT_TRUE(isAllDigits("\xd9\xa1\xd9\xa2"));  // Arabic-Indic one, two
    EXPECT_FALSE(isAllDigits("12 34"));
    EXPECT_FALSE(isAllDigits("-1"));
    EXPECT_FALSE(isAllDigits("1.5"));
    EXPECT_FALSE(isAllDigits("\xc2\xb2"));  // superscript two is not a decimal digit
}

TEST(IPAddressString, PaddingAndCountryCodes) {
    std::string text = "1";
    insertZeroIntoString(text, 4);
    EXPECT_EQ(text, "0001");
    text = "12345";
    insertZeroIntoString(text, 4);
    EXPECT_EQ(text, "12345");
    EXPECT_EQ(countryCodePresentation("86"), "+86");
    EXPECT_EQ(countryCodePresentation("+86"), "+86");
    EXPECT_EQ(countryCodePresentation(""), "+");
}
