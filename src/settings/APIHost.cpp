#include "lmkit/settings/APIHost.hpp"

namespace lmkit {

const std::vector<Property<APIHost>>& APIHost::properties() {
    static const std::vector<Property<APIHost>> table{
        prop("api", &APIHost::api),
        prop("feedback", &APIHost::feedback),
    };
    return table;
}

}  // namespace lmkit
