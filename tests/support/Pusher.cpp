// pusher COUNT OPTION...
//
// Pushes COUNT events, a multiple of 20, and forwards them as analytics-host does with these
// options. It pushes twenty a millisecond at most. With a COUNT of 0 it only sends what waits in
// the spool.
#include "host/program/Forwarding.h"
#include "tests/support/Examples.h"

#include <poll.h>

#include <iostream>

int main(int argc, char** argv) {
    const Options options = parseCommandLine(argc - 1, argv + 1).options.value();
    ParcelOutbox outbox(1'000'000);
    Forwarding forwarding(options);
    forwarding.start(outbox, [] {});
    for (u64 left = std::strtoull(argv[1], nullptr, 10) / 20; left > 0; --left) {
        pushTexts(outbox, 20);
        poll(nullptr, 0, 1);
    }
    const bool hasStopped = forwarding.stop(std::chrono::seconds(30));
    const AccountNumbers numbers = forwarding.numbers();
    std::cerr << numbers.text() << std::endl;
    return hasStopped && numbers.addsUp() && numbers.waiting == 0 && numbers.lost() == 0 ? 0 : 1;
}
