#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The dialog shown when the app opens, and how often it has been shown: on the day of `date`
/// (`todayCount`) and in all (`count`). Kept archived by ObjectPropertyStore.
struct OpenAppAlertInfo : Model<OpenAppAlertInfo> {
    std::optional<std::string> dialogID;
    std::optional<double> date;  // seconds since 1970 of the last showing
    long todayCount = 0;
    long count = 0;

    static const std::vector<Property<OpenAppAlertInfo>>& properties();
};

}  // namespace lmkit
