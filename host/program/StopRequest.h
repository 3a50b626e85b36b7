#pragma once

#include <functional>

// What ends the program: SIGINT, SIGTERM, SIGHUP, or the program itself. There is one at a time.
//
//     signal            | while nothing has asked to stop | later
//     ------------------+---------------------------------+----------------------------------
//     SIGINT, SIGTERM   | asks to stop                    | ends the process at once, with
//     SIGHUP            | calls `hangUp`, or asks to stop | exit code 128 + the signal
//
// The same signal again within 200 ms is the same one: some senders signal both a process and its
// group. SIGINT and SIGHUP stay ignored if they were when the program began.
//
// The signals have handlers, not dispositions: process 1 of a container has no default actions.
class StopRequest {
public:
    // `hangUp` is called by wait() for a SIGHUP; without it a SIGHUP asks to stop. Throws
    // std::system_error.
    explicit StopRequest(std::function<void()> hangUp = nullptr);
    ~StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

    // Asks the program to stop. Any thread.
    void request();

    // Blocks until something has asked to stop.
    void wait();

    // Whether something has. Any thread.
    bool isRequested() const;

    // The signal that asked to stop, 0 if none has.
    int signal() const;

private:
    const std::function<void()> m_hangUp;
};
