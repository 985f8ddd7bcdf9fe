#pragma once

#include <optional>
#include <string>

/// Text rules for IP addresses used by the measuring classes.
namespace lmkit::ipaddress {

/// True when `text` has no character outside the decimal digits; the empty text is all digits.
bool isAllDigits(const std::string& text);

/// The IPv4-mapped IPv6 text "::FFFF:<text>"; nullopt for an absent text.
std::optional<std::string> convert2IPV6Address(const std::optional<std::string>& text);

/// The IPv4 address embedded in the last two groups of an IPv6 text (as address-translating
/// networks synthesise them): 64:ff9b::c0a8:101 gives 192.168.1.1. nullopt when the text has
/// fewer than two groups or the groups do not make exactly four bytes.
std::optional<std::string> convert2IPV4Address(const std::string& text);

/// Puts "0" in front of `text` until it is `maxLength` long; longer text is left as it is.
void insertZeroIntoString(std::string& text, size_t maxLength);

/// The text with a leading "+" (kept when already there).
std::string countryCodePresentation(const std::string& text);

}  // namespace lmkit::ipaddress
