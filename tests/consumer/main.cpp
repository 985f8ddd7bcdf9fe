// Links the installed library and runs a block on one of its queues.
#include <cstdio>

#include <lmkit/platform/DispatchGroup.hpp>
#include <lmkit/platform/DispatchQueue.hpp>
#include <lmkit/platform/Number.hpp>

int main() {
    lmkit::DispatchGroup group;
    int answer = 0;
    group.enter();
    lmkit::DispatchQueue::serial("consumer.queue").async([&] {
        answer = static_cast<int>(lmkit::Number(42).intValue());
        group.leave();
    });
    if (!group.wait(5) || answer != 42) {
        std::puts("consumer: FAILED");
        return 1;
    }
    std::puts("consumer: linked lmkit::lmkit through find_package and ran a queue");
    return 0;
}
