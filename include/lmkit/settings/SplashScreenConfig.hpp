#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The splash screen the app shows at launch, as the service configures it: which picture, where
/// a tap leads, for how long and in which period it is shown, and how often a day.
struct SplashScreenConfig : Model<SplashScreenConfig> {
    std::optional<std::string> splashID;
    std::optional<std::string> imageURL;
    std::optional<std::string> linkURL;
    std::optional<Number> duration;   // seconds on screen
    std::optional<Number> startTime;  // seconds since 1970
    std::optional<Number> endTime;    // seconds since 1970
    std::optional<Number> dailyTimes;

    static const std::vector<Property<SplashScreenConfig>>& properties();
};

}  // namespace lmkit
