#include "benchmarks/Benchmark.h"
#include "benchmarks/ScratchFolder.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

namespace fs = std::filesystem;

// Standard error goes to a file if there is one.
pid_t start(std::vector<std::string> words, std::FILE* errors = nullptr) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (errors != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, fileno(errors), STDERR_FILENO);
    }
    pid_t process = 0;
    const int error =
        posix_spawnp(&process, arguments.front(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), words.front());
    }
    return process;
}

void waitFor(pid_t process, const std::string& program) {
    int status = 0;
    if (waitpid(process, &status, 0) != process || status != 0) {
        throw std::runtime_error(program + " failed, status " + std::to_string(status));
    }
}

// A file without a name, which nothing leaves behind.
class NamelessFile {
public:
    NamelessFile() : m_file(std::tmpfile()) {
        if (m_file == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make a temporary file");
        }
    }
    ~NamelessFile() { static_cast<void>(std::fclose(m_file)); } // nobody reads it any more
    NamelessFile(const NamelessFile&) = delete;
    NamelessFile& operator=(const NamelessFile&) = delete;

    std::FILE* get() const { return m_file; }
    // Under which others open it, too.
    fs::path path() const {
        return fs::path("/proc") / std::to_string(getpid()) / "fd" / std::to_string(fileno(m_file));
    }

private:
    std::FILE* m_file;
};

// The real host, without any I/O, its reports in a file. Ends by itself after a minute, should
// nobody be left to end it.
class IdleHost {
public:
    explicit IdleHost(unsigned int intervalSecs)
        : m_process(
              start({ANALYTICS_HOST, "--path", fs::temp_directory_path(), "--size", "1M",
                     "--max-ios", "0", "--interval", std::to_string(intervalSecs), "--reports",
                     std::to_string(60 / intervalSecs), "--output", m_reports.path()},
                    m_errors.get())) {}

    ~IdleHost() {
        if (!m_hasEnded) {
            kill(m_process, SIGTERM);
            waitpid(m_process, nullptr, 0);
        }
    }

    IdleHost(const IdleHost&) = delete;
    IdleHost& operator=(const IdleHost&) = delete;

    // Throws std::runtime_error, with what the host said, if it has ended.
    void expectRunning() {
        m_hasEnded = m_hasEnded || waitpid(m_process, nullptr, WNOHANG) != 0;
        if (m_hasEnded) {
            std::ifstream said(m_errors.path());
            throw std::runtime_error("the host has ended: " +
                                     std::string(std::istreambuf_iterator<char>(said), {}));
        }
    }

    // A file or folder of its entry in /proc.
    fs::path entry(const std::string& name) const {
        return fs::path("/proc") / std::to_string(m_process) / name;
    }

    bool hasReported() const { return fs::file_size(m_reports.path()) > 0; }

private:
    NamelessFile m_reports;
    NamelessFile m_errors;
    pid_t m_process;
    bool m_hasEnded = false;
};

// The sum of the values that follow a key at the beginning of a line.
u64 sumOf(const fs::path& file, const std::string& key) {
    std::ifstream in(file);
    u64 sum = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            sum += std::stoull(line.substr(key.size()));
        }
    }
    return sum;
}

u64 contextSwitches(const IdleHost& host) {
    u64 switches = 0;
    for (const auto& thread : fs::directory_iterator(host.entry("task"))) {
        switches += sumOf(thread.path() / "status", "voluntary_ctxt_switches:") +
                    sumOf(thread.path() / "status", "nonvoluntary_ctxt_switches:");
    }
    return switches;
}

// Asks again and again, for the other process does not tell.
template <typename Condition>
void awaitOutcome(IdleHost& host, const std::string& what, Condition condition) {
    constexpr int attempts = 50;
    for (int i = 0; i < attempts; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        host.expectRunning();
        if (condition()) {
            return;
        }
    }
    throw std::runtime_error("the host " + what + " within ten seconds");
}

Result countWakeUps(const Settings& settings) {
    IdleHost host(60);
    u64 atRest = 0;
    awaitOutcome(host, "does not come to rest", [&] {
        const u64 before = atRest;
        atRest = contextSwitches(host);
        return atRest == before;
    });
    const int seconds = settings.smoke ? 1 : 5;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const u64 wakeUps = contextSwitches(host) - atRest;
    host.expectRunning();
    return {"wake-ups of an idle host in " + std::to_string(seconds) + " s",
            "",
            "",
            static_cast<double>(wakeUps),
            {},
            {},
            Target::atMost(0)};
}

// Of the mappings of a file, from a process's smaps: each begins with a line that names the file.
u64 residentKiB(const fs::path& smaps, const std::string& file) {
    std::ifstream in(smaps);
    u64 sum = 0;
    bool isFile = false;
    for (std::string line; std::getline(in, line);) {
        const std::string key = line.substr(0, line.find(' '));
        if (key.back() != ':') {
            isFile = line.find("/" + file) != std::string::npos;
        } else if (isFile && key == "Rss:") {
            sum += std::stoull(line.substr(key.size()));
        }
    }
    return sum;
}

Result measureMemory() {
    IdleHost host(1);
    awaitOutcome(host, "makes no report", [&] { return host.hasReported(); });
    const u64 resident = residentKiB(host.entry("smaps"), "libanalytics.so");
    if (resident == 0) {
        throw std::runtime_error("libanalytics.so is not among the host's mappings");
    }
    return {"resident memory of libanalytics.so in a host",
            "",
            "KiB",
            static_cast<double>(resident),
            {},
            {},
            Target::reported()};
}

Result measureSize() {
    const ScratchFolder folder(fs::temp_directory_path());
    const fs::path stripped = folder.path() / "stripped";
    waitFor(start({"strip", "-o", stripped, ANALYTICS_LIBRARY}), "strip");
    return {"size of libanalytics.so, stripped",
            "",
            "KiB",
            static_cast<double>(fs::file_size(stripped)) / 1024,
            {},
            {},
            Target::reported()};
}

} // namespace

std::vector<Benchmark> footprintBenchmarks() {
    return {{"idle", [](const Settings& settings) { return std::vector{countWakeUps(settings)}; }},
            {"footprint", [](const Settings&) {
                 return std::vector{measureSize(), measureMemory()};
             }}};
}
