#pragma once

#include "common/infra/Defs.h"

// What ends the program: SIGINT, SIGTERM, or the program itself.
class StopRequest {
public:
    // From here on the two signals are only seen by wait(). To be made before any thread is
    // started, so that all of them leave the signals alone. Throws std::system_error.
    StopRequest();
    ~StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

    // Asks the program to stop. Any thread.
    void request();

    // Blocks until a signal has arrived or request() was called. After a signal the two have their
    // default effect again on the calling thread: a second one ends the process at once.
    void wait();

private:
    int m_signals = -1;
    int m_requests = -1;
};
