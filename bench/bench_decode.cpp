// Decoding and encoding an acceleration answer with 20,000 nodes through the record tables,
// against a bare JSON parse and dump of the same text. Prints the ratios (targets: at most 2.5).

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "BenchTable.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"

namespace {

constexpr int kNodes = 20000;
constexpr int kRounds = 7;

std::string answerText() {
    lmkit::Json answer = lmkit::Json::object();
    answer["account"] = {{"account", "user"}, {"gacc_code", "secret"}};
    answer["config"] = {
        {"mtu", 1400}, {"dns", {"8.8.8.8", "1.1.1.1"}}, {"keep_alive_duration", 15000}};
    lmkit::Json nodes = lmkit::Json::array();
    for (int i = 0; i < kNodes; ++i) {
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

template <class F>
double bestSeconds(F&& f) {
    double best = 1e9;
    for (int round = 0; round < kRounds; ++round) {
        auto start = std::chrono::steady_clock::now();
        f();
        std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        best = std::min(best, elapsed.count());
    }
    return best;
}

}  // namespace

int main() {
    const std::string text = answerText();
    std::size_t sink = 0;

    double parse = bestSeconds([&] { sink += lmkit::Json::parse(text).size(); });
    double decode = bestSeconds([&] {
        auto answer =
            lmkit::JSONAdapter::modelOfClass<lmkit::AccAPIResponseObject>(lmkit::Json::parse(text));
        sink += answer ? answer->accNodes->size() : 0;
    });

    const auto parsed = lmkit::Json::parse(text);
    const auto answer = lmkit::JSONAdapter::modelOfClass<lmkit::AccAPIResponseObject>(parsed);
    if (!answer) {
        std::fprintf(stderr, "decode failed\n");
        return 1;
    }
    double dump = bestSeconds([&] { sink += parsed.dump().size(); });
    double encode = bestSeconds([&] { sink += answer->toJSONDictionary()->dump().size(); });

    std::printf("answer of %d nodes, %zu bytes\n", kNodes, text.size());
    std::printf("parse %.1f ms, parse+decode %.1f ms, ratio %.2f (target <= 2.5)\n", parse * 1e3,
                decode * 1e3, decode / parse);
    std::printf("dump %.1f ms, encode+dump %.1f ms, ratio %.2f (target <= 2.5)\n", dump * 1e3,
                encode * 1e3, encode / dump);
    char measured[64];
    std::snprintf(measured, sizeof measured, "%.2fx (parse %.1f ms)", decode / parse, parse * 1e3);
    bench::result("record decoding of 20,000 nodes against the bare parse", "<= 2.5x", measured,
                  decode / parse <= 2.5);
    std::snprintf(measured, sizeof measured, "%.2fx (dump %.1f ms)", encode / dump, dump * 1e3);
    bench::result("record encoding of 20,000 nodes against the bare dump", "<= 2.5x", measured,
                  encode / dump <= 2.5);
    return sink == 0 || !bench::gAllMet;
}
