#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lmkit::probe {

/// Destination port of probes when the selector was given none: the nodes' echo service.
inline constexpr long kDefaultProbePort = 9999;

/// The key under which a probed address is counted: "host:port", or the host alone for port 0.
/// Set-up builds it from a node's ping server and the replies from their source address, so
/// both sides must produce identical text.
std::string constructKeyWithHost(std::string_view host, long port);
/// constructKeyWithHost into `key`, reusing its storage: the reply path builds one per echo.
void assignKeyWithHost(std::string& key, std::string_view host, long port);

/// The text of one probe: `prefix` followed by the decimal milliseconds elapsed since the run's
/// first probe (`firstPacketTimeStamp`, milliseconds since 1970) at `nowMilliseconds`,
/// truncated toward zero.
std::string makeProbePayload(std::string_view prefix, double firstPacketTimeStamp,
                             double nowMilliseconds);

/// What a reply datagram says, once checked.
struct ProbeReply {
    enum class Status {
        Accepted,          // `stamp` holds the echoed stamp
        Ignored,           // empty or not UTF-8: dropped without a word
        InvalidPacket,     // not all digits while no prefix is set
        InvalidTimestamp,  // the stamp reads as a negative number
    };
    Status status = Status::Ignored;
    std::string text;  // the decoded payload, for the log lines
    double stamp = 0;  // milliseconds after the run's first probe
};

/// Checks a reply's payload against the run's `prefix`. Only the prefix's length is removed, not
/// its characters: the echo service returns the payload verbatim, so comparing would only cost
/// time. A text no longer than the prefix is read whole (and so usually as stamp 0).
ProbeReply parseProbeReply(const std::uint8_t* data, std::size_t size, std::string_view prefix);
inline ProbeReply parseProbeReply(const std::vector<std::uint8_t>& data, std::string_view prefix) {
    return parseProbeReply(data.data(), data.size(), prefix);
}

/// What a selector makes of one received datagram.
struct ReplyDecision {
    enum class Action {
        Drop,              // silently: empty, not UTF-8, a stamp from later, or no source
        InvalidPacket,     // logged as an invalid packet, then dropped
        InvalidTimestamp,  // logged as an invalid stamp, then dropped
        Record,            // `delay` counts under `host` and `port`
    };
    Action action = Action::Drop;
    std::string text;        // the decoded payload, for the log lines
    double delay = 0;        // milliseconds, for Record
    std::string host;        // for Record: the source, or the IPv4 address a synthesised IPv6
                             // source carries
    long port = 0;           // for Record
    bool fromIPv6 = false;   // for Record: the source is an IPv6 address
    std::string sourceHost;  // for Record: the source as received
};

/// Judges a reply datagram that came from `sourceHost`:`sourcePort` (address `family`,
/// AF_INET or AF_INET6) at `nowMilliseconds`, for a run whose probes carry `prefix` and count
/// from `firstPacketTimeStamp`. The selector's receive path is this decision plus the run's
/// bookkeeping.
ReplyDecision decideProbeReply(const std::uint8_t* data, std::size_t size, std::string_view prefix,
                               double firstPacketTimeStamp, double nowMilliseconds,
                               const std::string& sourceHost, long sourcePort, int family);

/// True when `text` is non-empty and holds ASCII digits only.
bool isAllDigits(std::string_view text);

/// Reads the leading decimal number of `text` the lenient way: leading blanks skipped, an
/// optional sign, digits with an optional fraction and exponent; anything unreadable is 0.
double leadingDoubleValue(std::string_view text);

/// True when `bytes` is well-formed UTF-8.
bool isValidUtf8(std::string_view bytes);

}  // namespace lmkit::probe
