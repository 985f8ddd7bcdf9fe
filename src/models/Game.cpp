#include "lmkit/models/Game.hpp"

#include <mutex>

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

namespace {

struct UrlOpening {
    std::mutex mutex;
    std::function<bool(const std::string&)> checker;
};

UrlOpening& urlOpening() {
    static UrlOpening instance;
    return instance;
}

bool canOpenURL(const std::string& url) {
    std::function<bool(const std::string&)> checker;
    {
        std::lock_guard lock(urlOpening().mutex);
        checker = urlOpening().checker;
    }
    return checker && checker(url);
}

}  // namespace

void Game::setURLOpeningChecker(std::function<bool(const std::string& url)> checker) {
    std::lock_guard lock(urlOpening().mutex);
    urlOpening().checker = std::move(checker);
}

bool Game::supportOpenURL() const {
    if (urlScheme && !urlScheme->empty())
        return true;
    if (launchURI && !launchURI->empty())
        return true;
    return multipleBundleUrlTypes && !multipleBundleUrlTypes->empty();
}

std::vector<std::shared_ptr<GameMultipleBundleUrlType>> Game::installedAppBundleUrlTypes() const {
    std::vector<std::shared_ptr<GameMultipleBundleUrlType>> installed;
    if (!multipleBundleUrlTypes)
        return installed;
    for (const auto& entry : *multipleBundleUrlTypes) {
        if (entry && entry->bundleUrlType && canOpenURL(*entry->bundleUrlType + "://"))
            installed.push_back(entry);
    }
    return installed;
}

std::size_t Game::numberOfValidItuneUrl() const {
    return bundleUrlTypeWithValidItuneUrl().size();
}

std::vector<std::shared_ptr<GameMultipleBundleUrlType>> Game::bundleUrlTypeWithValidItuneUrl()
    const {
    std::vector<std::shared_ptr<GameMultipleBundleUrlType>> valid;
    if (!multipleBundleUrlTypes)
        return valid;
    for (const auto& entry : *multipleBundleUrlTypes)
        if (entry && entry->itcUrl)
            valid.push_back(entry);
    return valid;
}

std::optional<std::string> Game::getDialogIDWithTiming(const Number& timing) const {
    if (!dialogs)
        return std::nullopt;
    for (const auto& dialog : *dialogs)
        if (dialog && dialog->when && *dialog->when == timing)
            return dialog->dialogId;
    return std::nullopt;
}

Json Game::identity() const {
    if (gid)
        return Json(*gid);
    if (const Json* held = valueOfOtherKind("gid"))
        return *held;
    return Json();
}

std::string Game::keyLog() const {
    auto text = [](const std::optional<std::string>& s) { return s ? *s : "(null)"; };
    Json id = identity();
    return "id:" +
           (id.is_string() ? *gid
            : id.is_null() ? std::string("(null)")
                           : id.dump()) +
           " name:" + text(name) + " grade:" + std::to_string(grade) + ", zone:" + text(zoneName);
}

const std::vector<Property<Game>>& Game::properties() {
    static const std::vector<Property<Game>> table{
        prop("gid", &Game::gid),
        prop("name", &Game::name),
        prop("subName", "subname", &Game::subName),
        prop("shortName", "short_name", &Game::shortName),
        prop("prefix", &Game::prefix),
        prop("grade", &Game::grade),
        prop("zoneName", "as_sub_name", &Game::zoneName),
        prop("zoneGameSuperGid", "super", &Game::zoneGameSuperGid),
        prop("zoneGames", "subs", &Game::zoneGames),
        prop("iconUrl", "icon_url", &Game::iconUrl, filepickerURLTransformer()),
        prop("badgeURL", "corner_badge", &Game::badgeURL, filepickerURLTransformer()),
        prop("isHot", "hot_search", &Game::isHot).withDefault(Number(0)),
        prop("oversea", &Game::oversea),
        prop("isOverseaGame", "oversea", &Game::isOverseaGame),
        prop("keyWords", "key_words", &Game::keyWords).withDefault(std::vector<std::string>{}),
        prop("urlScheme", "bundle_url_type", &Game::urlScheme).withDefault(""),
        prop("multipleBundleUrlTypes", "bundle_multiple_url_type", &Game::multipleBundleUrlTypes)
            .withDefault(std::vector<std::shared_ptr<GameMultipleBundleUrlType>>{}),
        prop("category", &Game::category).withDefault(std::vector<Json>{}),
        prop("isOnline", "online", &Game::isOnline).withDefault(Number(1)),
        prop("consoleGameWikiId", "console_wiki_id", &Game::consoleGameWikiId).withDefault(""),
        prop("isSingleLine", "is_single_line", &Game::isSingleLine),
        prop("launchURI", "launch_uri", &Game::launchURI),
        prop("extra", "game_extra", &Game::extra),
        prop("dialogs", "dialog", &Game::dialogs),
        prop("downloadInfo", "download_info", &Game::downloadInfo),
        prop("showGameDetail", "show_game_detail", &Game::showGameDetail),
        prop("gameTags", "tags", &Game::gameTags),
        prop("autoSelect", "auto_select", &Game::autoSelect),
        prop("supportDualChannel", "dual_channel", &Game::supportDualChannel),
        prop("gameRegion", "game_region", &Game::gameRegion),
        prop("showLockRegionUI", "show_lock_region_ui", &Game::showLockRegionUI),
        prop("speedTestLines", "game_ping", &Game::speedTestLines),
    };
    return table;
}

const std::vector<Property<DownloadAreasItem>>& DownloadAreasItem::properties() {
    static const std::vector<Property<DownloadAreasItem>> table{
        prop("name", &DownloadAreasItem::name),
        prop("area", "key", &DownloadAreasItem::area),
    };
    return table;
}

const std::vector<Property<GameMultipleBundleUrlType>>& GameMultipleBundleUrlType::properties() {
    static const std::vector<Property<GameMultipleBundleUrlType>> table{
        prop("itcUrl", "itc_url", &GameMultipleBundleUrlType::itcUrl),
        prop("bundleUrlType", "bundle_url_type", &GameMultipleBundleUrlType::bundleUrlType),
        prop("name", &GameMultipleBundleUrlType::name),
        prop("appstoreName", "appstore_name", &GameMultipleBundleUrlType::appstoreName),
        prop("downloadAreas", "download_areas", &GameMultipleBundleUrlType::downloadAreas),
    };
    return table;
}

const std::vector<Property<GameDownloadInfo>>& GameDownloadInfo::properties() {
    static const std::vector<Property<GameDownloadInfo>> table{
        prop("downloadURL", "download_url", &GameDownloadInfo::downloadURL),
    };
    return table;
}

const std::vector<Property<GameDownloadModel>>& GameDownloadModel::properties() {
    static const std::vector<Property<GameDownloadModel>> table{
        prop("homelandShowDownload", "homeland", &GameDownloadModel::homelandShowDownload),
        prop("overseaShowDownload", "oversea", &GameDownloadModel::overseaShowDownload),
    };
    return table;
}

const std::vector<Property<GameExtraTag>>& GameExtraTag::properties() {
    static const std::vector<Property<GameExtraTag>> table{
        prop("identifier", "id", &GameExtraTag::identifier),
        prop("text", "label", &GameExtraTag::text),
        prop("url", &GameExtraTag::url),
    };
    return table;
}

const std::vector<Property<GameExtraTitle>>& GameExtraTitle::properties() {
    static const std::vector<Property<GameExtraTitle>> table{
        prop("identifier", "id", &GameExtraTitle::identifier),
        prop("text", "label", &GameExtraTitle::text),
        prop("url", &GameExtraTitle::url),
        prop("tapMaxLimit", "max_click", &GameExtraTitle::tapMaxLimit).withDefault(1),
        prop("displayMaxLimit", "max_display", &GameExtraTitle::displayMaxLimit).withDefault(2),
        prop("tapCount", &GameExtraTitle::tapCount).withDefault(0),
        prop("displayCount", &GameExtraTitle::displayCount).withDefault(0),
    };
    return table;
}

const std::vector<Property<GameExtra>>& GameExtra::properties() {
    static const std::vector<Property<GameExtra>> table{
        prop("tags", &GameExtra::tags),
        prop("titleList", "titles", &GameExtra::titleList),
    };
    return table;
}

const std::vector<Property<GameTag>>& GameTag::properties() {
    static const std::vector<Property<GameTag>> table{
        prop("identifier", "id", &GameTag::identifier),
        prop("category", &GameTag::category),
        prop("name", &GameTag::name),
    };
    return table;
}

const std::vector<Property<GameCategory>>& GameCategory::properties() {
    static const std::vector<Property<GameCategory>> table{
        prop("cid", "id", &GameCategory::cid),
        prop("name", &GameCategory::name),
    };
    return table;
}

const std::vector<Property<DialogConfiguration>>& DialogConfiguration::properties() {
    static const std::vector<Property<DialogConfiguration>> table{
        prop("dialogId", "id", &DialogConfiguration::dialogId),
        prop("when", &DialogConfiguration::when),
    };
    return table;
}

}  // namespace lmkit
