#include "lmkit/models/APIResponses.hpp"

namespace lmkit {

const std::vector<Property<GameSearchAPIResponse>>& GameSearchAPIResponse::properties() {
    static const std::vector<Property<GameSearchAPIResponse>> table{
        prop("keyword", &GameSearchAPIResponse::keyword),
        prop("games", "list", &GameSearchAPIResponse::games),
    };
    return table;
}

const std::vector<Property<TopSearchAPIResponse>>& TopSearchAPIResponse::properties() {
    static const std::vector<Property<TopSearchAPIResponse>> table{
        prop("games", "list", &TopSearchAPIResponse::games),
    };
    return table;
}

const std::vector<Property<GameBoostListAPIResponse>>& GameBoostListAPIResponse::properties() {
    static const std::vector<Property<GameBoostListAPIResponse>> table{
        prop("games", "list", &GameBoostListAPIResponse::games),
    };
    return table;
}

const std::vector<Property<NoticeAPIResponseObject>>& NoticeAPIResponseObject::properties() {
    static const std::vector<Property<NoticeAPIResponseObject>> table{
        prop("announcements", "timeline", &NoticeAPIResponseObject::announcements),
        prop("removedAnnouncements", "deleted", &NoticeAPIResponseObject::removedAnnouncements),
    };
    return table;
}

const std::vector<Property<AppVersionModel>>& AppVersionModel::properties() {
    using R = AppVersionModel;
    static const std::vector<Property<R>> table{
        prop("newestVersion", "current_version", &R::newestVersion),
        prop("desc", &R::desc),
        prop("downloadURL", "download_url", &R::downloadURL),
        prop("minSupportVersion", "min_support_version", &R::minSupportVersion),
        prop("versionName", "version_name", &R::versionName),
    };
    return table;
}

}  // namespace lmkit
