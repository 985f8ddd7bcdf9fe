#include "lmkit/settings/SplashScreenConfig.hpp"

namespace lmkit {

const std::vector<Property<SplashScreenConfig>>& SplashScreenConfig::properties() {
    using R = SplashScreenConfig;
    static const std::vector<Property<R>> table{
        prop("splashID", "id", &R::splashID),
        prop("imageURL", "image_url", &R::imageURL),
        prop("linkURL", "link_url", &R::linkURL),
        prop("duration", &R::duration),
        prop("startTime", "start_time", &R::startTime),
        prop("endTime", "end_time", &R::endTime),
        prop("dailyTimes", "daily_times", &R::dailyTimes),
    };
    return table;
}

}  // namespace lmkit
