#include "lmkit/models/NetspeedTask.hpp"

namespace lmkit {

const std::vector<Property<NetspeedTaskMachine>>& NetspeedTaskMachine::properties() {
    static const std::vector<Property<NetspeedTaskMachine>> table{
        prop("host", &NetspeedTaskMachine::host),
        prop("port", &NetspeedTaskMachine::port),
    };
    return table;
}

const std::vector<Property<NetspeedTask>>& NetspeedTask::properties() {
    static const std::vector<Property<NetspeedTask>> table{
        prop("type", &NetspeedTask::type),
        prop("category", &NetspeedTask::category),
        prop("machines", &NetspeedTask::machines),
        prop("sequence", "seq", &NetspeedTask::sequence),
        prop("protocol", &NetspeedTask::protocol),
        prop("rounds", &NetspeedTask::rounds),
        prop("packets", &NetspeedTask::packets),
        prop("intervalTime", "interval_time", &NetspeedTask::intervalTime),
    };
    return table;
}

const std::vector<Property<NetspeedTaskResponse>>& NetspeedTaskResponse::properties() {
    static const std::vector<Property<NetspeedTaskResponse>> table{
        prop("tasks", &NetspeedTaskResponse::tasks),
    };
    return table;
}

}  // namespace lmkit
