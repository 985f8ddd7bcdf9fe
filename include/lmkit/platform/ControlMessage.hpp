#pragma once

#include <sys/socket.h>

#include <cstring>
#include <optional>

namespace lmkit {

/// The value of the control message of `level` and `type` that a read left in `header` (an
/// arrival stamp, a segment size, the address a datagram was sent to), copied out as a `T`; nil
/// when the message carries none.
template <typename T>
std::optional<T> controlValue(const msghdr& header, int level, int type) {
    for (const cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(c))) {
        if (c->cmsg_level == level && c->cmsg_type == type) {
            T value{};
            std::memcpy(&value, CMSG_DATA(c), sizeof value);
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace lmkit
