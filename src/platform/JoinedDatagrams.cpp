#include "lmkit/platform/JoinedDatagrams.hpp"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <cstring>

namespace lmkit {

bool takeJoinedDatagrams(int fd) {
    int on = 1;
    return setsockopt(fd, IPPROTO_UDP, UDP_GRO, &on, sizeof on) == 0;
}

std::size_t joinedSegmentSize(const msghdr& header) {
    for (const cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(c))) {
        if (c->cmsg_level == SOL_UDP && c->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(c), sizeof size);
            return size > 0 ? static_cast<std::size_t>(size) : 0;
        }
    }
    return 0;
}

}  // namespace lmkit
