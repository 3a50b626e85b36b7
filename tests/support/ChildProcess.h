#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// A program that runs beside the test, its standard output and standard error caught.
class ChildProcess {
public:
    // Throws std::runtime_error if it cannot be started.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess(); // kills it if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output, without its end; empty at the end of the output.
    std::string readLine();
    void signal(int number) const;
    // Reads standard output to its end and waits. The exit code, or minus the signal that ended it.
    int wait();

    const std::string& output() const { return m_output; } // all that was read so far
    std::string errors() const;                            // complete after wait()

private:
    bool readMore();

    pid_t m_pid = -1;
    int m_stdout = -1;
    int m_stderr = -1; // an unnamed file
    std::string m_output;
    std::size_t m_linesEnd = 0; // of what readLine() has handed out
};
