#include "lmkit/platform/JoinedDatagrams.hpp"

#include <netinet/in.h>
#include <netinet/udp.h>

#include "lmkit/platform/ControlMessage.hpp"

namespace lmkit {

bool takeJoinedDatagrams(int fd) {
    int on = 1;
    return setsockopt(fd, IPPROTO_UDP, UDP_GRO, &on, sizeof on) == 0;
}

std::size_t joinedSegmentSize(const msghdr& header) {
    const int size = controlValue<int>(header, SOL_UDP, UDP_GRO).value_or(0);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace lmkit
