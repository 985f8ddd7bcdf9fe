#pragma once

#include <functional>

#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/NodeInfo.hpp"

namespace lmkit {

struct DownloadAreasItem : Model<DownloadAreasItem> {
    std::optional<std::string> name;
    std::optional<std::string> area;
    static const std::vector<Property<DownloadAreasItem>>& properties();
};

/// One way to detect or obtain a game in one store area.
struct GameMultipleBundleUrlType : Model<GameMultipleBundleUrlType> {
    std::optional<std::string> itcUrl;         // the store link
    std::optional<std::string> bundleUrlType;  // the URL scheme
    std::optional<std::string> name;
    std::optional<std::string> appstoreName;
    std::optional<std::vector<std::shared_ptr<DownloadAreasItem>>> downloadAreas;
    static const std::vector<Property<GameMultipleBundleUrlType>>& properties();
};

struct GameDownloadInfo : Model<GameDownloadInfo> {
    std::optional<std::string> downloadURL;
    static const std::vector<Property<GameDownloadInfo>>& properties();
};

struct GameDownloadModel : Model<GameDownloadModel> {
    bool homelandShowDownload = false;
    bool overseaShowDownload = false;
    static const std::vector<Property<GameDownloadModel>>& properties();
};

struct GameExtraTag : Model<GameExtraTag> {
    std::optional<Json> identifier;
    std::optional<std::string> text;
    std::optional<std::string> url;
    static const std::vector<Property<GameExtraTag>>& properties();
};

/// A title shown with a game, with its local tap and display counters. Equal by identifier.
struct GameExtraTitle : Model<GameExtraTitle> {
    std::optional<Json> identifier;
    std::optional<std::string> text;
    std::optional<std::string> url;
    long tapMaxLimit = 1;
    long displayMaxLimit = 2;
    long tapCount = 0;
    long displayCount = 0;

    bool operator==(const GameExtraTitle& other) const { return identifier == other.identifier; }

    static const std::vector<Property<GameExtraTitle>>& properties();
};

struct GameExtra : Model<GameExtra> {
    std::optional<std::vector<std::shared_ptr<GameExtraTag>>> tags;
    std::optional<std::vector<std::shared_ptr<GameExtraTitle>>> titleList;
    static const std::vector<Property<GameExtra>>& properties();
};

struct GameTag : Model<GameTag> {
    std::optional<Json> identifier;
    std::optional<std::string> category;
    std::optional<std::string> name;
    static const std::vector<Property<GameTag>>& properties();
};

struct GameCategory : Model<GameCategory> {
    std::optional<Json> cid;
    std::optional<std::string> name;
    static const std::vector<Property<GameCategory>>& properties();
};

/// A dialog attached to a game; `when` is the presentation layer's timing code.
struct DialogConfiguration : Model<DialogConfiguration> {
    std::optional<std::string> dialogId;
    std::optional<Number> when;
    static const std::vector<Property<DialogConfiguration>>& properties();
};

/// A game that can be accelerated. Equal (and hashed) by gid, whatever kind of value it holds.
struct Game : Model<Game> {
    std::optional<std::string> gid;
    std::optional<std::string> name;
    std::optional<std::string> subName;
    std::optional<std::string> shortName;
    std::optional<std::string> prefix;
    std::uint64_t grade = 0;
    std::optional<std::string> zoneName;
    std::optional<std::string> zoneGameSuperGid;
    std::optional<std::vector<std::shared_ptr<Game>>> zoneGames;
    std::optional<Url> iconUrl;
    std::optional<Url> badgeURL;
    std::optional<Number> isHot;
    bool oversea = false;
    bool isOverseaGame = false;  // the same "oversea" key, on purpose
    std::optional<std::vector<std::string>> keyWords;
    std::optional<std::string> urlScheme;
    std::optional<std::vector<std::shared_ptr<GameMultipleBundleUrlType>>> multipleBundleUrlTypes;
    std::optional<std::vector<Json>> category;
    std::optional<Number> isOnline;
    std::optional<std::string> consoleGameWikiId;
    bool isSingleLine = false;
    std::optional<std::string> launchURI;
    std::shared_ptr<GameExtra> extra;
    std::optional<std::vector<std::shared_ptr<DialogConfiguration>>> dialogs;
    std::shared_ptr<GameDownloadInfo> downloadInfo;
    bool showGameDetail = false;
    std::optional<std::vector<std::shared_ptr<GameTag>>> gameTags;
    bool autoSelect = false;
    bool supportDualChannel = false;
    std::optional<std::string> gameRegion;
    bool showLockRegionUI = false;
    std::optional<std::vector<std::shared_ptr<BaseNode>>> speedTestLines;

    /// The gid as held: its text, or the value of another kind the service sent (a numeric
    /// gid stays that number), or null.
    Json identity() const;
    bool operator==(const Game& other) const { return identity() == other.identity(); }

    /// True when the game has a URL scheme, a launch URI or at least one bundle entry.
    bool supportOpenURL() const;
    /// The bundle entries whose scheme the device can open ("scheme://"), in order.
    std::vector<std::shared_ptr<GameMultipleBundleUrlType>> installedAppBundleUrlTypes() const;
    /// How many bundle entries carry a store link, and those entries in order.
    std::size_t numberOfValidItuneUrl() const;
    std::vector<std::shared_ptr<GameMultipleBundleUrlType>> bundleUrlTypeWithValidItuneUrl() const;
    /// The dialogId of the first dialog whose `when` equals `timing`; nil if none.
    std::optional<std::string> getDialogIDWithTiming(const Number& timing) const;
    /// "id:<gid> name:<name> grade:<grade>, zone:<zoneName>" for log lines.
    std::string keyLog() const;

    /// Asks the platform whether a URL can be opened. On Linux nothing can, unless the embedding
    /// application installs its own check.
    static void setURLOpeningChecker(std::function<bool(const std::string& url)> checker);

    static const std::vector<Property<Game>>& properties();
};

}  // namespace lmkit

template <>
struct std::hash<lmkit::Game> {
    std::size_t operator()(const lmkit::Game& game) const {
        return std::hash<lmkit::Json>()(game.identity());
    }
};

template <>
struct std::hash<lmkit::GameExtraTitle> {
    std::size_t operator()(const lmkit::GameExtraTitle& title) const {
        return title.identifier ? std::hash<lmkit::Json>()(*title.identifier) : 0;
    }
};
