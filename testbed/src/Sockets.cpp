#include "Sockets.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>

#include "lmkit/platform/ControlMessage.hpp"

namespace lmkit::testbed {

std::optional<sockaddr_storage> makeAddress(const std::string& host, std::uint16_t port,
                                            socklen_t& length) {
    sockaddr_storage storage{};
    auto* in = reinterpret_cast<sockaddr_in*>(&storage);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, host.c_str(), &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
        in->sin_port = htons(port);
        length = sizeof(sockaddr_in);
        return storage;
    }
    if (inet_pton(AF_INET6, host.c_str(), &in6->sin6_addr) == 1) {
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        length = sizeof(sockaddr_in6);
        return storage;
    }
    return std::nullopt;
}

int openBound(const sockaddr_storage& address, socklen_t length, int bufferBytes,
              std::string& reason) {
    int fd = ::socket(address.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        reason = std::system_category().message(errno);
        return -1;
    }
    for (int option : {SO_RCVBUF, SO_SNDBUF}) {
        int forced = option == SO_RCVBUF ? SO_RCVBUFFORCE : SO_SNDBUFFORCE;
        if (setsockopt(fd, SOL_SOCKET, forced, &bufferBytes, sizeof bufferBytes) != 0)
            setsockopt(fd, SOL_SOCKET, option, &bufferBytes, sizeof bufferBytes);
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        reason = std::system_category().message(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

std::size_t cutIntoSegments(msghdr& header, std::size_t length, std::size_t segment) {
    const std::size_t datagrams = datagramsIn(length, segment);
    if (datagrams == 1) {
        header.msg_control = nullptr;
        header.msg_controllen = 0;
        return 1;
    }
    const auto size = static_cast<std::uint16_t>(segment);
    header.msg_controllen = CMSG_SPACE(sizeof size);
    cmsghdr* c = CMSG_FIRSTHDR(&header);
    c->cmsg_level = SOL_UDP;
    c->cmsg_type = UDP_SEGMENT;
    c->cmsg_len = CMSG_LEN(sizeof size);
    std::memcpy(CMSG_DATA(c), &size, sizeof size);
    return datagrams;
}

void leaveFrom(msghdr& header, void* room, const in_addr& source) {
    if (header.msg_control == nullptr) {
        header.msg_control = room;
        header.msg_controllen = 0;
    }
    auto* c =
        reinterpret_cast<cmsghdr*>(static_cast<char*>(header.msg_control) + header.msg_controllen);
    in_pktinfo info{};
    info.ipi_spec_dst = source;
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
    header.msg_controllen += CMSG_SPACE(sizeof info);
}

std::optional<in_addr> sentTo(const msghdr& header) {
    auto info = controlValue<in_pktinfo>(header, IPPROTO_IP, IP_PKTINFO);
    if (!info)
        return std::nullopt;
    return info->ipi_addr;
}

namespace {
std::chrono::nanoseconds sinceEpoch(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}
}  // namespace

ArrivalClock::ArrivalClock() : readAt_(std::chrono::steady_clock::now()) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    wallAt_ = sinceEpoch(now);
}

std::chrono::steady_clock::time_point ArrivalClock::arrival(const msghdr& header) const {
    auto stamp = controlValue<timespec>(header, SOL_SOCKET, SCM_TIMESTAMPNS);
    if (!stamp)
        return readAt_;
    // The stamp is on the wall clock: its distance from the read carries over to the steady
    // clock. A wall clock stepped meanwhile would put it after the read or far before it.
    const auto age = wallAt_ - sinceEpoch(*stamp);
    if (age < std::chrono::nanoseconds(0) || age > std::chrono::seconds(1))
        return readAt_;
    return readAt_ - std::chrono::duration_cast<std::chrono::steady_clock::duration>(age);
}

std::uint16_t boundPort(int fd) {
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    if (bound.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

}  // namespace lmkit::testbed
