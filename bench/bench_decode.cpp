// Decoding and encoding an acceleration answer with 20,000 nodes through the record tables,
// against a bare JSON parse and dump of the same text. Prints the ratios (targets: at most 2.5).
// Given the tool (argv[1]), also times `lmkit decode` on a 60 MB answer and reads its peak RSS.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "BenchTable.hpp"
#include "ChildPeak.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"

namespace {

constexpr int kNodes = 20000;
constexpr int kRounds = 7;

std::string answerText(int count = kNodes) {
    lmkit::Json answer = lmkit::Json::object();
    answer["account"] = {{"account", "user"}, {"gacc_code", "secret"}};
    answer["config"] = {
        {"mtu", 1400}, {"dns", {"8.8.8.8", "1.1.1.1"}}, {"keep_alive_duration", 15000}};
    lmkit::Json nodes = lmkit::Json::array();
    for (int i = 0; i < count; ++i) {
        std::string ip = "10." + std::to_string(i / 65536 % 256) + "." +
                         std::to_string(i / 256 % 256) + "." + std::to_string(i % 256);
        nodes.push_back({{"id", "node-" + std::to_string(i)},
                         {"ip", ip},
                         {"port", 443 + i % 7},
                         {"tls_port", 8443},
                         {"netask_port", 9999},
                         {"ping_server", ip},
                         {"operator_ip", {{{"key", {"46000", "46002"}}, {"value", ip}}}},
                         {"sni_ip", "sni.example"},
                         {"sni_port", 443},
                         {"sni_crypt", 1},
                         {"total", 1000},
                         {"online", i % 1000},
                         {"weight", 50},
                         {"rear_delay", 12.5},
                         {"chart_rear_delay", 13},
                         {"delay", 0},
                         {"delayScore", 0},
                         {"lossScore", 0},
                         {"loadScore", 0},
                         {"ispScore", 0}});
    }
    answer["acc"] = std::move(nodes);
    answer["dual_channel"] = "udp";
    return answer.dump();
}

struct ToolRun {
    bool ok = false;
    double seconds = 0;
    double peakMegabytes = 0;
};

// `lmkit decode AccAPIResponseObject FILE` with its output discarded. posix_spawn returns once
// the child runs the tool, without copying this process's page tables first.
ToolRun decodeWithTool(const std::string& tool, const std::string& file) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::string decode = "decode", type = "AccAPIResponseObject",
                maxBytes = "--max-bytes=200000000";
    char* argv[] = {const_cast<char*>(tool.c_str()), decode.data(),   type.data(),
                    const_cast<char*>(file.c_str()), maxBytes.data(), nullptr};
    ToolRun run;
    pid_t pid = 0;
    auto start = std::chrono::steady_clock::now();
    int spawned = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return run;
    int status = 0;
    run.peakMegabytes = bench::childPeakMegabytes(pid, tool, status);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return run;
}

void largeDocument(const char* tool) {
    // About 160,000 nodes make 60 MB.
    const std::string text = answerText(160000);
    char path[] = "/tmp/lmkit-bench-answer-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::fprintf(stderr, "cannot write the 60 MB answer\n");
        bench::gAllMet = false;
        return;
    }
    ::close(fd);
    double parse = bench::bestSeconds(kRounds, [&] { (void)lmkit::Json::parse(text).size(); });
    std::vector<ToolRun> runs;
    for (int i = 0; i < 5; ++i)
        runs.push_back(decodeWithTool(tool, path));
    ::unlink(path);
    std::sort(runs.begin(), runs.end(),
              [](const ToolRun& a, const ToolRun& b) { return a.seconds < b.seconds; });
    const ToolRun& median = runs[runs.size() / 2];
    if (!median.ok) {
        std::fprintf(stderr, "lmkit decode failed on the 60 MB answer\n");
        bench::gAllMet = false;
        return;
    }
    std::printf(
        "60 MB answer (%.1f MB): lmkit decode %.2f s, peak RSS %.0f MB; bare parse %.2f s\n",
        text.size() / 1e6, median.seconds, median.peakMegabytes, parse);
    char measured[96];
    std::snprintf(measured, sizeof measured, "%.2f s (bare parse %.2f s)", median.seconds, parse);
    bench::result("lmkit decode of a 60 MB node document", "<= 2 s", measured,
                  median.seconds <= 2.0);
    std::snprintf(measured, sizeof measured, "%.0f MB", median.peakMegabytes);
    bench::result("peak RSS of lmkit decode on a 60 MB node document", "<= 400 MB", measured,
                  median.peakMegabytes <= 400);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string text = answerText();
    std::size_t sink = 0;

    double parse = bench::bestSeconds(kRounds, [&] { sink += lmkit::Json::parse(text).size(); });
    double decode = bench::bestSeconds(kRounds, [&] {
        auto answer =
            lmkit::JSONAdapter::modelOfClass<lmkit::AccAPIResponseObject>(lmkit::Json::parse(text));
        sink += answer ? answer->accNodes->size() : 0;
    });

    double decodeText = bench::bestSeconds(kRounds, [&] {
        auto answer = lmkit::JSONAdapter::modelOfClassFromText<lmkit::AccAPIResponseObject>(text);
        sink += answer ? answer->accNodes->size() : 0;
    });

    const auto parsed = lmkit::Json::parse(text);
    const auto answer = lmkit::JSONAdapter::modelOfClass<lmkit::AccAPIResponseObject>(parsed);
    if (!answer) {
        std::fprintf(stderr, "decode failed\n");
        return 1;
    }
    double dump = bench::bestSeconds(kRounds, [&] { sink += parsed.dump().size(); });
    double encode =
        bench::bestSeconds(kRounds, [&] { sink += answer->toJSONDictionary()->dump().size(); });

    std::printf("answer of %d nodes, %zu bytes\n", kNodes, text.size());
    std::printf("parse %.1f ms, parse+decode %.1f ms, ratio %.2f (target <= 2.5)\n", parse * 1e3,
                decode * 1e3, decode / parse);
    std::printf("dump %.1f ms, encode+dump %.1f ms, ratio %.2f (target <= 2.5)\n", dump * 1e3,
                encode * 1e3, encode / dump);
    char measured[64];
    std::snprintf(measured, sizeof measured, "%.2fx (parse %.1f ms)", decode / parse, parse * 1e3);
    bench::result("record decoding of 20,000 parsed nodes against the bare parse", "<= 2.5x",
                  measured, decode / parse <= 2.5);
    std::snprintf(measured, sizeof measured, "%.2fx (parse %.1f ms)", decodeText / parse,
                  parse * 1e3);
    bench::result("record decoding from text, 20,000 nodes, against the bare parse", "<= 2.5x",
                  measured, decodeText / parse <= 2.5);
    std::snprintf(measured, sizeof measured, "%.2fx (dump %.1f ms)", encode / dump, dump * 1e3);
    bench::result("record encoding of 20,000 nodes against the bare dump", "<= 2.5x", measured,
                  encode / dump <= 2.5);
    if (argc > 1)
        largeDocument(argv[1]);
    return sink == 0 || !bench::gAllMet;
}
