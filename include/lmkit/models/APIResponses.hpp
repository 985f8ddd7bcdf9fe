#pragma once

// The service's small list answers. Announcements belong to the presentation layer and are kept
// as delivered.

#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/Game.hpp"

namespace lmkit {

struct GameSearchAPIResponse : Model<GameSearchAPIResponse> {
    std::optional<std::string> keyword;
    std::optional<std::vector<std::shared_ptr<Game>>> games;
    static const std::vector<Property<GameSearchAPIResponse>>& properties();
};

struct TopSearchAPIResponse : Model<TopSearchAPIResponse> {
    std::optional<std::vector<std::shared_ptr<Game>>> games;
    static const std::vector<Property<TopSearchAPIResponse>>& properties();
};

struct GameBoostListAPIResponse : Model<GameBoostListAPIResponse> {
    std::optional<std::vector<std::shared_ptr<Game>>> games;
    static const std::vector<Property<GameBoostListAPIResponse>>& properties();
};

struct NoticeAPIResponseObject : Model<NoticeAPIResponseObject> {
    std::optional<std::vector<Json>> announcements;
    std::optional<std::vector<Json>> removedAnnouncements;
    static const std::vector<Property<NoticeAPIResponseObject>>& properties();
};

struct AppVersionModel : Model<AppVersionModel> {
    std::optional<std::string> newestVersion;
    std::optional<std::string> desc;
    std::optional<std::string> downloadURL;
    std::optional<std::string> minSupportVersion;
    std::optional<std::string> versionName;
    static const std::vector<Property<AppVersionModel>>& properties();
};

}  // namespace lmkit
