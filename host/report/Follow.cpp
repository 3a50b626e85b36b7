#include "host/report/Follow.h"

#include "host/report/Collector.h"
#include "host/report/ExitCodes.h"
#include "host/report/Figures.h"
#include "host/report/Input.h"
#include "host/report/TextReport.h"
#include "host/services/FileDescriptor.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <list>
#include <memory>
#include <sstream>
#include <system_error>

namespace report {

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr auto pause = std::chrono::milliseconds(250);

FileDescriptor checked(int descriptor, const char* what) {
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return FileDescriptor(descriptor);
}

// The signals that end the program, as a descriptor. They are blocked from then on.
FileDescriptor stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return checked(signalfd(-1, &signals, SFD_CLOEXEC), "cannot wait for signals");
}

// A file or standard input, read as far as it goes.
class Followed {
public:
    Followed(const std::string& path, Collector& collector)
        : m_path(path), m_collector(collector) {}

    bool isStream() const { return m_path == Input::standard; }
    bool hasEnded() const { return m_hasEnded; }

    // All that the file holds; of a stream, what one read gives.
    void readOn() {
        reopenIfReplaced();
        while (m_input && readSome() && !isStream()) {
        }
    }

private:
    bool readSome() {
        char* const room = m_lines->room();
        const std::size_t count = m_input->read(room, m_lines->roomSize());
        m_lines->bytesAdded(count);
        if (isStream() && count == 0) {
            m_hasEnded = true;
            m_lines->finish();
        }
        return count > 0;
    }

    void reopenIfReplaced() {
        struct stat status {};
        if (isStream()) {
            if (!m_input) {
                open();
            }
        } else if (stat(m_path.c_str(), &status) == 0 &&
                   (!m_input || status.st_ino != m_inode ||
                    static_cast<u64>(status.st_size) < m_input->position())) {
            if (m_input) { // reads what the replaced file got at last
                while (status.st_ino != m_inode && readSome()) {
                }
                m_lines->finish();
            }
            m_inode = status.st_ino;
            open();
        }
    }

    void open() {
        m_input = std::make_unique<Input>(m_path);
        m_lines = std::make_unique<LineSplitter>(m_collector.linesOf(m_input->name()));
    }

    const std::string m_path;
    Collector& m_collector;
    std::unique_ptr<Input> m_input;
    std::unique_ptr<LineSplitter> m_lines;
    ino_t m_inode = 0;
    bool m_hasEnded = false;
};

class Screen {
public:
    Screen() : m_isTerminal(isatty(STDOUT_FILENO) == 1) {}

    void show(const Figures& figures) {
        const std::string text = textOf(figures, m_isTerminal);
        std::cout << (m_isTerminal ? inPlace(text) : text + "\n");
        if (!std::cout.flush()) {
            throw std::runtime_error("cannot write to standard output");
        }
    }

private:
    // As many lines as the terminal has, each cleared to its end, over those that are there.
    std::string inPlace(const std::string& text) {
        winsize size{};
        const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1;
        std::istringstream lines(text);
        std::string result = m_isFirst ? "\x1b[2J\x1b[H" : "\x1b[H";
        m_isFirst = false;
        std::string line;
        for (int row = 1; std::getline(lines, line) && (!isKnown || row < size.ws_row); ++row) {
            result += line + "\x1b[K\n";
        }
        return result + "\x1b[J";
    }

    const bool m_isTerminal;
    bool m_isFirst = true;
};

class Follower {
public:
    explicit Follower(const Options& options)
        : m_collector(options.choice),
          m_signals(stopSignals()),
          m_changes(checked(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "cannot watch files")) {
        for (const std::string& path : options.files) {
            m_files.emplace_back(path, m_collector);
            if (!m_files.back().isStream()) {
                watch(path);
            }
        }
    }

    void run() {
        readFiles();
        while (!mustEnd()) {
            wait();
        }
        showNow();
    }

private:
    // A folder reports changes of its files and new files. A link and its target may be in two.
    void watch(const std::string& path) {
        namespace fs = std::filesystem;
        for (const auto& file : {fs::absolute(path), fs::weakly_canonical(path)}) {
            if (inotify_add_watch(m_changes.get(), file.parent_path().c_str(),
                                  IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
                throw std::system_error(errno, std::generic_category(),
                                        "cannot watch the folder of " + path);
            }
        }
    }

    void readFiles() {
        for (Followed& file : m_files) {
            if (!file.isStream()) {
                file.readOn();
            }
        }
        m_isNew = true;
    }

    bool mustEnd() const {
        return m_isStopped || std::all_of(m_files.begin(), m_files.end(),
                                          [](const Followed& file) { return file.hasEnded(); });
    }

    // Waits for a signal, for input, or until the new figures may be shown, and handles it.
    void wait() {
        std::array<pollfd, 3> polled{{{m_signals.get(), POLLIN, 0},
                                      {m_changes.get(), POLLIN, 0},
                                      {stream() != nullptr ? STDIN_FILENO : -1, POLLIN, 0}}};
        if (poll(polled.data(), polled.size(), timeoutMs()) < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot wait for records");
        }
        m_isStopped = polled[0].revents != 0;
        if (polled[1].revents != 0) {
            takeChanges();
            readFiles();
        }
        if (polled[2].revents != 0) {
            stream()->readOn();
            m_isNew = true;
        }
        if (m_isNew && SteadyClock::now() >= m_next) {
            showNow();
        }
    }

    Followed* stream() {
        for (Followed& file : m_files) {
            if (file.isStream() && !file.hasEnded()) {
                return &file;
            }
        }
        return nullptr;
    }

    int timeoutMs() const {
        if (!m_isNew) {
            return -1;
        }
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_next - SteadyClock::now());
        return static_cast<int>(std::max<s64>(0, rest.count()));
    }

    void takeChanges() const {
        alignas(inotify_event) std::array<char, 4096> events;
        while (::read(m_changes.get(), events.data(), events.size()) > 0) {
        }
    }

    void showNow() {
        m_screen.show(figuresOf(m_collector));
        m_isNew = false;
        m_next = SteadyClock::now() + pause;
    }

    Collector m_collector;
    const FileDescriptor m_signals;
    const FileDescriptor m_changes;
    std::list<Followed> m_files;
    Screen m_screen;
    bool m_isNew = false;
    bool m_isStopped = false;
    SteadyClock::time_point m_next; // to show
};

} // namespace

int follow(const Options& options) {
    Follower(options).run();
    return exitDone;
}

} // namespace report
