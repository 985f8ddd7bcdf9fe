#include "lmkit/models/SpeedometerResult.hpp"

#include <cmath>
#include <fstream>
#include <sstream>
#include <system_error>

#include "StrictJson.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/platform/AppGroup.hpp"

namespace lmkit {

SpeedometerResult::SpeedometerResult(std::uint32_t seq, std::string host, std::string ip,
                                     std::optional<std::string> proxyType,
                                     std::optional<std::string> proxyIP,
                                     std::optional<std::uint16_t> proxyPort, double minLatency,
                                     double maxLatency, double avgLatency,
                                     std::vector<double> latencies, double lossRate, double jitter,
                                     std::string networkInterface, std::uint64_t completeTime,
                                     std::optional<std::string> traceroute, bool isReachable)
    : seq(seq),
      host(std::move(host)),
      ip(std::move(ip)),
      proxyType(std::move(proxyType)),
      proxyIP(std::move(proxyIP)),
      proxyPort(proxyPort),
      minLatency(minLatency),
      maxLatency(maxLatency),
      avgLatency(avgLatency),
      latencies(std::move(latencies)),
      lossRate(lossRate),
      jitter(jitter),
      networkInterface(std::move(networkInterface)),
      completeTime(completeTime),
      traceroute(std::move(traceroute)),
      isReachable(isReachable) {}

std::optional<Json> SpeedometerResult::toJson(Error* error) const {
    // A NaN or infinity would be written as null and make the whole file unreadable later.
    bool finite = std::isfinite(minLatency) && std::isfinite(maxLatency) &&
                  std::isfinite(avgLatency) && std::isfinite(lossRate) && std::isfinite(jitter);
    for (double d : latencies)
        finite = finite && std::isfinite(d);
    if (!finite) {
        if (error)
            *error = models_detail::invalidInput("a latency, loss rate or jitter is not finite");
        return std::nullopt;
    }
    Json out = Json::object();
    out["seq"] = seq;
    out["host"] = host;
    out["ip"] = ip;
    if (proxyType)
        out["proxyType"] = *proxyType;
    if (proxyIP)
        out["proxyIP"] = *proxyIP;
    if (proxyPort)
        out["proxyPort"] = *proxyPort;
    out["minLatency"] = minLatency;
    out["maxLatency"] = maxLatency;
    out["avgLatency"] = avgLatency;
    out["latencies"] = latencies;
    out["lossRate"] = lossRate;
    out["jitter"] = jitter;
    out["networkInterface"] = networkInterface;
    out["completeTime"] = completeTime;
    if (traceroute)
        out["traceroute"] = *traceroute;
    out["isReachable"] = isReachable;
    return out;
}

std::optional<SpeedometerResult> SpeedometerResult::fromJson(const Json& json, Error* error) {
    if (!json.is_object()) {
        if (error)
            *error = models_detail::invalidInput("expected a JSON object, got " +
                                                 std::string(models_detail::kindName(json)));
        return std::nullopt;
    }
    models_detail::StrictReader r(json);
    SpeedometerResult s;
    s.seq = r.required<std::uint32_t>("seq");
    s.host = r.required<std::string>("host");
    s.ip = r.required<std::string>("ip");
    s.proxyType = r.optional<std::string>("proxyType");
    s.proxyIP = r.optional<std::string>("proxyIP");
    s.proxyPort = r.optional<std::uint16_t>("proxyPort");
    s.minLatency = r.required<double>("minLatency");
    s.maxLatency = r.required<double>("maxLatency");
    s.avgLatency = r.required<double>("avgLatency");
    s.latencies = r.required<std::vector<double>>("latencies");
    s.lossRate = r.required<double>("lossRate");
    s.jitter = r.required<double>("jitter");
    s.networkInterface = r.required<std::string>("networkInterface");
    s.completeTime = r.required<std::uint64_t>("completeTime");
    s.traceroute = r.optional<std::string>("traceroute");
    s.isReachable = r.required<bool>("isReachable");
    if (r.failed()) {
        if (error)
            *error = r.error();
        return std::nullopt;
    }
    return s;
}

std::filesystem::path SpeedometerResult::url() {
    return AppGroup::containerDirectory() / "Speedometer.results";
}

std::optional<std::string> SpeedometerResult::data() {
    std::ifstream in(url(), std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (in.bad())
        return std::nullopt;
    return std::move(bytes).str();
}

std::vector<SpeedometerResult> SpeedometerResult::results(std::optional<std::size_t> prefix) {
    std::vector<SpeedometerResult> out;
    auto bytes = data();
    if (!bytes)
        return out;
    Json array = Json::parse(*bytes, nullptr, false);
    if (!array.is_array())
        return out;
    for (const auto& element : array) {
        auto result = fromJson(element);
        if (!result)
            return {};  // one bad element makes the whole array undecodable
        out.push_back(std::move(*result));
    }
    if (prefix && *prefix < out.size())
        out.resize(*prefix);
    return out;
}

bool SpeedometerResult::append(const SpeedometerResult& result) {
    auto fail = [](const std::string& description) {
        log::error("[SpeedometerResult] Failed to append result: " + description);
        return false;
    };
    try {
        auto stored = results();
        stored.push_back(result);
        Json array = Json::array();
        for (const auto& item : stored) {
            Error error;
            auto json = item.toJson(&error);
            if (!json)
                return fail(error.localizedDescription());
            array.push_back(std::move(*json));
        }
        // Written beside the file and renamed over it, so a failed write keeps the old results.
        auto target = url();
        auto temporary = target;
        temporary += ".tmp";
        {
            std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
            out << array.dump();
            out.flush();
            if (!out)
                return fail("cannot write " + temporary.string());
        }
        std::error_code ec;
        // The container's files are private to the user, whatever the umask.
        std::filesystem::permissions(
            temporary, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
            ec);
        std::filesystem::rename(temporary, target, ec);
        if (ec) {
            std::filesystem::remove(temporary, ec);
            return fail("cannot replace " + target.string());
        }
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    log::info("[SpeedometerResult] Successfully appended a result");
    return true;
}

}  // namespace lmkit
