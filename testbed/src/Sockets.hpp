#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

namespace lmkit::testbed {

/// The send and receive buffers of a server's sockets: each may face a burst of thousands of
/// probes at once.
inline constexpr int kBufferBytes = 4 * 1024 * 1024;

/// The socket address of an IPv4 or IPv6 literal and a port, with its length; nil for a name
/// or anything else that is not a literal. The test servers bind only to literals.
std::optional<sockaddr_storage> makeAddress(const std::string& host, std::uint16_t port,
                                            socklen_t& length);

/// A non-blocking UDP socket bound to `address`, with send and receive buffers of `bufferBytes`
/// (a server faces bursts of thousands of probes) and the kernel's arrival stamp on every
/// datagram read; -1 and `reason` when it cannot be had.
int openBound(const sockaddr_storage& address, socklen_t length, int bufferBytes,
              std::string& reason);

/// Room for the arrival stamp, the segment size and the destination address in a message's
/// control data.
inline constexpr std::size_t kArrivalControlBytes = 128;

/// How many datagrams a message of `length` bytes holds when cut into `segment`-byte pieces (0:
/// one datagram).
inline std::size_t datagramsIn(std::size_t length, std::size_t segment) {
    return segment && length > segment ? (length + segment - 1) / segment : 1;
}

/// Makes `header` (whose msg_control has kArrivalControlBytes of room), carrying `length` bytes,
/// leave as datagrams of `segment` bytes, the last one shorter (UDP_SEGMENT), or as one datagram
/// when it holds no more than one segment (or `segment` is 0). Gives the number of datagrams.
std::size_t cutIntoSegments(msghdr& header, std::size_t length, std::size_t segment);

/// Makes the datagrams of `header` leave from `source` (IP_PKTINFO), after whatever control data
/// it already carries; `room` (kArrivalControlBytes) is used when it carries none.
void leaveFrom(msghdr& header, void* room, const in_addr& source);

/// The local address a datagram read on a socket with IP_PKTINFO was sent to; nil without one.
std::optional<in_addr> sentTo(const msghdr& header);

/// When the kernel took in each datagram of one read, on the steady clock. A server that times a
/// reply from this instant does not count its own wake-up as part of the delay it injects.
class ArrivalClock {
  public:
    /// Reads the steady and the wall clock once, for all the datagrams of a read just made.
    ArrivalClock();
    std::chrono::steady_clock::time_point readAt() const { return readAt_; }
    /// The arrival of the datagram of `header` (read with kArrivalControlBytes of control data);
    /// readAt() when it carries no stamp.
    std::chrono::steady_clock::time_point arrival(const msghdr& header) const;

  private:
    std::chrono::steady_clock::time_point readAt_;
    std::chrono::nanoseconds wallAt_;  // the wall clock at readAt_, since 1970
};

/// The local port `fd` is bound to.
std::uint16_t boundPort(int fd);

}  // namespace lmkit::testbed
