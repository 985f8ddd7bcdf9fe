#pragma once

#include <map>
#include <string>
#include <string_view>

namespace lmkit {

/// The text that the application's string table gives for `key`, or "" when the application
/// supplied no table or the table lacks the key.
std::string localizedString(std::string_view key);

/// Installs the application's string table (key to text); replaces any earlier one.
void setLocalizedStringTable(std::map<std::string, std::string, std::less<>> table);

}  // namespace lmkit
