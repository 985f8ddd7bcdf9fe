#include "lmkit/foundation/DefaultsWriteQueue.hpp"

namespace lmkit {

DispatchQueue defaultsWriteQueue() {
    static const DispatchQueue queue = DispatchQueue::serial("com.lmkit.userDefault.queue");
    return queue;
}

}  // namespace lmkit
