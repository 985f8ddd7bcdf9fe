#include "lmkit/platform/Localized.hpp"

#include <mutex>

namespace lmkit {

namespace {
std::mutex gTableMutex;
std::map<std::string, std::string, std::less<>> gTable;  // guarded by gTableMutex
}  // namespace

std::string localizedString(std::string_view key) {
    std::lock_guard lock(gTableMutex);
    auto it = gTable.find(key);
    return it == gTable.end() ? std::string() : it->second;
}

void setLocalizedStringTable(std::map<std::string, std::string, std::less<>> table) {
    std::lock_guard lock(gTableMutex);
    gTable = std::move(table);
}

}  // namespace lmkit
