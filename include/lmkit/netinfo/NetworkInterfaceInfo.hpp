#pragma once

#include <set>
#include <string>

namespace lmkit {

/// One interface and the addresses it carries, in presentation form.
struct NetworkInterfaceInfo {
    std::string name;
    std::set<std::string> ipAddresses;
};

}  // namespace lmkit
