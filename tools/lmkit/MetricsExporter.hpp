#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "WatchHistory.hpp"

struct mg_context;
struct mg_connection;

namespace lmkit::tool {

/// Serves a watch's figures at /metrics in the Prometheus text exposition format: per node the
/// delay histogram, loss, deviation and score; the probes by outcome; the chosen node; the
/// switches; and the process's own figures. Nodes beyond `maxSeries` share the node label
/// "other", so that a long node list cannot flood the server that scrapes it.
class MetricsExporter {
  public:
    /// Bucket bounds of the delay histogram, in seconds: 0.1 ms to 400 ms.
    static const std::vector<double>& delayBuckets();

    /// Listens on `listen` ("127.0.0.1:9464", or a port alone for every address); nullptr and
    /// `error` when it cannot (a port already in use, say).
    static std::unique_ptr<MetricsExporter> start(const std::string& listen, std::size_t maxSeries,
                                                  std::string& error);
    /// The figures alone, with no server (for tests and --metrics-file).
    explicit MetricsExporter(std::size_t maxSeries);
    ~MetricsExporter();
    MetricsExporter(const MetricsExporter&) = delete;
    MetricsExporter& operator=(const MetricsExporter&) = delete;

    /// Takes a round in: `probesPerNode` probes went to each node.
    void record(const WatchRound& round, long probesPerNode);
    /// The page /metrics serves.
    std::string exposition() const;

  private:
    struct Series {
        std::vector<std::uint64_t> buckets;  // cumulative counts per bound
        std::uint64_t count = 0;
        double sum = 0;
        double loss = 0, deviation = 0, score = 0;
    };
    static int handle(mg_connection* connection, void* self);
    const std::string& labelOf(const std::string& node);

    const std::size_t maxSeries_;
    mg_context* context_ = nullptr;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> labels_;    // node → its label ("other" beyond the cap)
    std::map<std::string, Series> series_;         // by label
    std::map<std::string, std::uint64_t> probes_;  // by result
    std::string chosen_;
    std::uint64_t switches_ = 0;
    std::uint64_t rounds_ = 0;
};

}  // namespace lmkit::tool
