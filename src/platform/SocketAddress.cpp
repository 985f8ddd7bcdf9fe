#include "platform/SocketAddress.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace lmkit::detail {

std::optional<sockaddr_storage> makeAddress(const std::string& host, uint16_t port,
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

}  // namespace lmkit::detail
