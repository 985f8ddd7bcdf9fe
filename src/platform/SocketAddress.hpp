#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/socket.h>

namespace lmkit::detail {

/// The socket address of an IPv4 or IPv6 literal and a port, with its length; nil for a name
/// or anything else that is not a literal. The test servers bind only to literals.
std::optional<sockaddr_storage> makeAddress(const std::string& host, uint16_t port,
                                            socklen_t& length);

}  // namespace lmkit::detail
