#include "lmkit/settings/OpenAppAlertInfo.hpp"

namespace lmkit {

const std::vector<Property<OpenAppAlertInfo>>& OpenAppAlertInfo::properties() {
    using R = OpenAppAlertInfo;
    static const std::vector<Property<R>> table{
        prop("dialogID", &R::dialogID),
        prop("date", &R::date),
        prop("todayCount", &R::todayCount),
        prop("count", &R::count),
    };
    return table;
}

}  // namespace lmkit
