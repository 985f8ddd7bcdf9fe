#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

namespace lmkit {

/// Lets the kernel hand back-to-back datagrams of one flow to `fd` as one message, with their
/// segment size (UDP_GRO): a node's echoes joined by the network card, or on loopback a sender's
/// segmented message (UDP_SEGMENT) taken whole instead of split in the sender's system call.
/// One read and one buffer then serve several datagrams. False when the kernel does not offer it.
bool takeJoinedDatagrams(int fd);

/// The segment size of a message read from such a socket: every datagram in it has this size but
/// the last, which may be shorter. 0 for a message that is a single datagram.
std::size_t joinedSegmentSize(const msghdr& header);

/// Calls `visit(offset, size)` for each datagram of a message of `length` bytes read with
/// segment size `segment` (see joinedSegmentSize; 0 for a single datagram), in order. An empty
/// message is one empty datagram.
template <typename Visit>
void forEachJoinedDatagram(std::size_t length, std::size_t segment, Visit&& visit) {
    const std::size_t step = segment ? segment : std::max<std::size_t>(length, 1);
    std::size_t offset = 0;
    do {
        visit(offset, std::min(step, length - offset));
        offset += step;
    } while (offset < length);
}

}  // namespace lmkit
