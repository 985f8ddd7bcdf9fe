#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One machine a delay test measures.
struct NetspeedTaskMachine : Model<NetspeedTaskMachine> {
    std::optional<std::string> host;
    std::optional<Number> port;

    static const std::vector<Property<NetspeedTaskMachine>>& properties();
};

/// One delay test the service orders: which machines, over which protocol, how many rounds of
/// how many packets and how far apart.
struct NetspeedTask : Model<NetspeedTask> {
    std::uint8_t type = 0;
    std::uint8_t category = 0;
    std::optional<std::vector<std::shared_ptr<NetspeedTaskMachine>>> machines;
    std::optional<Number> sequence;
    std::optional<std::string> protocol;
    std::optional<Number> rounds;
    std::optional<Number> packets;
    std::optional<Number> intervalTime;

    static const std::vector<Property<NetspeedTask>>& properties();
};

/// The service's list of delay tests.
struct NetspeedTaskResponse : Model<NetspeedTaskResponse> {
    std::optional<std::vector<std::shared_ptr<NetspeedTask>>> tasks;

    static const std::vector<Property<NetspeedTaskResponse>>& properties();
};

}  // namespace lmkit
