#include "MetricsExporter.hpp"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>

#include <civetweb.h>
#include <fmt/format.h>

namespace lmkit::tool {

namespace {

const std::string kOther = "other";

// A label value as the exposition format writes it.
std::string escaped(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

std::string number(double value) {
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    return fmt::format("{}", value);
}

double startTime() {
    static const double at = static_cast<double>(std::time(nullptr));
    return at;
}

void processFigures(std::string& out) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    long pages = 0, resident = 0;
    if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
            pages = resident = 0;
        std::fclose(statm);
    }
    const double pageSize = static_cast<double>(sysconf(_SC_PAGESIZE));
    long fds = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir))
            ++fds;
        closedir(dir);
        fds -= 3;  // ".", ".." and the directory's own descriptor
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    out +=
        "# HELP process_cpu_seconds_total User and system CPU time of the process.\n"
        "# TYPE process_cpu_seconds_total counter\n";
    out += "process_cpu_seconds_total " + number(cpu) + "\n";
    out +=
        "# HELP process_resident_memory_bytes Resident memory of the process.\n"
        "# TYPE process_resident_memory_bytes gauge\n";
    out += "process_resident_memory_bytes " + number(resident * pageSize) + "\n";
    out +=
        "# HELP process_virtual_memory_bytes Virtual memory of the process.\n"
        "# TYPE process_virtual_memory_bytes gauge\n";
    out += "process_virtual_memory_bytes " + number(pages * pageSize) + "\n";
    out +=
        "# HELP process_start_time_seconds When the process started, in seconds since 1970.\n"
        "# TYPE process_start_time_seconds gauge\n";
    out += "process_start_time_seconds " + number(startTime()) + "\n";
    out +=
        "# HELP process_open_fds Open file descriptors of the process.\n"
        "# TYPE process_open_fds gauge\n";
    out += "process_open_fds " + number(static_cast<double>(fds)) + "\n";
    out +=
        "# HELP process_max_fds The process's limit of open file descriptors.\n"
        "# TYPE process_max_fds gauge\n";
    out += "process_max_fds " + number(static_cast<double>(limit.rlim_cur)) + "\n";
}

}  // namespace

const std::vector<double>& MetricsExporter::delayBuckets() {
    static const std::vector<double> bounds{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                            0.01,   0.025,   0.05,   0.1,   0.2,    0.4};
    return bounds;
}

MetricsExporter::MetricsExporter(std::size_t maxSeries) : maxSeries_(maxSeries) {
    startTime();
    for (const char* result : {"reply", "lost", "late", "duplicate"})
        probes_[result] = 0;
}

std::unique_ptr<MetricsExporter> MetricsExporter::start(const std::string& listen,
                                                        std::size_t maxSeries, std::string& error) {
    auto exporter = std::make_unique<MetricsExporter>(maxSeries);
    mg_init_library(0);
    const char* options[] = {"listening_ports", listen.c_str(), "num_threads", "2", nullptr};
    mg_callbacks callbacks{};
    // civetweb's own complaints (a port in use) come back through the error below.
    callbacks.log_message = [](const mg_connection*, const char*) { return 1; };
    mg_init_data init{&callbacks, exporter.get(), options};
    char text[256] = {};
    unsigned code = 0;
    mg_error_data failure{&code, text, sizeof text};
    exporter->context_ = mg_start2(&init, &failure);
    if (!exporter->context_) {
        error = "cannot serve metrics on " + listen + ": " +
                (text[0] ? std::string(text) : "the server did not start") +
                " (is the address in use, or not one of this machine's?)";
        return nullptr;
    }
    mg_set_request_handler(exporter->context_, "/metrics", &MetricsExporter::handle,
                           exporter.get());
    return exporter;
}

MetricsExporter::~MetricsExporter() {
    if (context_)
        mg_stop(context_);
}

int MetricsExporter::handle(mg_connection* connection, void* self) {
    const std::string page = static_cast<MetricsExporter*>(self)->exposition();
    mg_send_http_ok(connection, "text/plain; version=0.0.4; charset=utf-8",
                    static_cast<long long>(page.size()));
    mg_write(connection, page.data(), page.size());
    return 200;
}

const std::string& MetricsExporter::labelOf(const std::string& node) {
    auto found = labels_.find(node);
    if (found != labels_.end())
        return found->second;
    const bool own = labels_.size() < maxSeries_;
    return labels_.emplace(node, own ? node : kOther).first->second;
}

void MetricsExporter::record(const WatchRound& round, long probesPerNode) {
    std::lock_guard lock(mutex_);
    ++rounds_;
    if (round.switched && !chosen_.empty())
        ++switches_;
    chosen_ = round.chosen;
    // Nodes that share the "other" label share its gauges as their mean.
    std::map<std::string, int> sharing;
    for (const auto& sample : round.samples) {
        const std::string& label = labelOf(sample.node);
        auto& series = series_[label];
        if (series.buckets.empty())
            series.buckets.assign(delayBuckets().size(), 0);
        const int n = ++sharing[label];
        const auto mean = [n](double previous, double value) {
            return n == 1 ? value : previous + (value - previous) / n;
        };
        series.loss = mean(series.loss, sample.loss);
        series.deviation = mean(series.deviation, sample.deviationMs / 1000);
        series.score = mean(series.score, sample.score);
        const long replies = std::lround(static_cast<double>(probesPerNode) * (1 - sample.loss));
        probes_["reply"] += static_cast<std::uint64_t>(replies);
        probes_["lost"] += static_cast<std::uint64_t>(probesPerNode - replies);
        if (sample.loss >= 1)
            continue;  // no delay was measured
        const double seconds = sample.delayMs / 1000;
        ++series.count;
        series.sum += seconds;
        for (std::size_t i = 0; i < delayBuckets().size(); ++i)
            if (seconds <= delayBuckets()[i])
                ++series.buckets[i];
    }
    probes_["late"] += static_cast<std::uint64_t>(round.late);
    probes_["duplicate"] += static_cast<std::uint64_t>(round.duplicates);
}

std::string MetricsExporter::exposition() const {
    std::lock_guard lock(mutex_);
    std::string out;
    auto header = [&](const char* name, const char* type, const char* help) {
        out += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
    };
    header("lmkit_node_delay_seconds", "histogram",
           "Delay of each round's probes to the node (their trimmed mean), per round.");
    for (const auto& [label, series] : series_) {
        const auto node = escaped(label);
        for (std::size_t i = 0; i < delayBuckets().size(); ++i)
            out += fmt::format("lmkit_node_delay_seconds_bucket{{node=\"{}\",le=\"{}\"}} {}\n",
                               node, number(delayBuckets()[i]), series.buckets[i]);
        out += fmt::format("lmkit_node_delay_seconds_bucket{{node=\"{}\",le=\"+Inf\"}} {}\n", node,
                           series.count);
        out += fmt::format("lmkit_node_delay_seconds_sum{{node=\"{}\"}} {}\n", node,
                           number(series.sum));
        out +=
            fmt::format("lmkit_node_delay_seconds_count{{node=\"{}\"}} {}\n", node, series.count);
    }
    auto gauge = [&](const char* name, const char* help, double Series::*field) {
        header(name, "gauge", help);
        for (const auto& [label, series] : series_)
            out +=
                fmt::format("{}{{node=\"{}\"}} {}\n", name, escaped(label), number(series.*field));
    };
    gauge("lmkit_node_loss_ratio", "Share of the last round's probes to the node that were lost.",
          &Series::loss);
    gauge("lmkit_node_deviation_seconds", "Deviation of the last round's delays to the node.",
          &Series::deviation);
    gauge("lmkit_node_score", "The node's score in the last round (higher is better).",
          &Series::score);
    header("lmkit_probes_total", "counter", "Probes by outcome.");
    for (const auto& [result, count] : probes_)
        out += fmt::format("lmkit_probes_total{{result=\"{}\"}} {}\n", result, count);
    header("lmkit_chosen_node_info", "gauge", "The node the watch has chosen (value 1).");
    if (!chosen_.empty())
        out += fmt::format("lmkit_chosen_node_info{{node=\"{}\"}} 1\n", escaped(chosen_));
    header("lmkit_switches_total", "counter", "Times the chosen node changed.");
    out += fmt::format("lmkit_switches_total {}\n", switches_);
    header("lmkit_rounds_total", "counter", "Selection rounds run.");
    out += fmt::format("lmkit_rounds_total {}\n", rounds_);
    processFigures(out);
    return out;
}

}  // namespace lmkit::tool
