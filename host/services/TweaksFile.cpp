#include "host/services/TweaksFile.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Log.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace {

constexpr const char* intervalName = "t_StorageAnalyticsIntervalSec";
constexpr unsigned int defaultIntervalSec = 86400;
constexpr u32 maxU32 = std::numeric_limits<u32>::max();

u32 getInterval() {
    return Singleton<Tweaks, Tweaks>::instance()->uintVal(
        intervalName, DefaultTweakValue<unsigned int>(defaultIntervalSec));
}

void setInterval(u32 value) {
    Singleton<Tweaks, Tweaks>::instance()->set(intervalName, std::to_string(value));
}

template <auto Field>
u32 getField() {
    return Singleton<DynamicTweaks, DynamicTweaks>::instance()->*Field;
}

template <auto Field>
void setField(u32 value) {
    auto& field = Singleton<DynamicTweaks, DynamicTweaks>::instance()->*Field;
    field = static_cast<decltype(field.load())>(value);
}

enum class Kind { Flag, Number };

// A tunable that can be in a file. A flag is 0 or 1.
struct Tunable {
    const char* name;
    Kind kind;
    u32 least;
    u32 most;
    u32 (*get)();
    void (*set)(u32);
};

template <auto Field>
constexpr Tunable micros(const char* name) {
    return {name, Kind::Number, 0, maxU32, getField<Field>, setField<Field>};
}

constexpr std::array tunables = {
    // The timer takes milliseconds in 32 bits.
    Tunable{intervalName, Kind::Number, 1, maxU32 / OneSecondInMs, getInterval, setInterval},
    Tunable{"t_disablePeriodicAnalytics", Kind::Flag, 0, 1,
            getField<&DynamicTweaks::t_disablePeriodicAnalytics>,
            setField<&DynamicTweaks::t_disablePeriodicAnalytics>},
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyThreshold>(
        "t_StorageAnalyticsLatencyThreshold"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyFast>("t_StorageAnalyticsLatencyFast"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyModerate>("t_StorageAnalyticsLatencyModerate"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencySlow>("t_StorageAnalyticsLatencySlow"),
    micros<&DynamicTweaks::t_StorageAnalyticsLatencyVerySlow>("t_StorageAnalyticsLatencyVerySlow"),
};
constexpr std::size_t firstBound = 3; // from here on strictly ascending

std::string textOf(const Tunable& tunable, u32 value) {
    if (tunable.kind == Kind::Flag) {
        return value != 0 ? "true" : "false";
    }
    return std::to_string(value);
}

std::vector<u32> valuesInForce() {
    std::vector<u32> values(tunables.size());
    std::transform(tunables.begin(), tunables.end(), values.begin(),
                   [](const Tunable& tunable) { return tunable.get(); });
    return values;
}

std::string readFile(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"),
                                                               std::fclose);
    std::string content;
    std::array<char, 4096> chunk{};
    std::size_t length = 0;
    while (file != nullptr &&
           (length = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0) {
        content.append(chunk.data(), length);
    }
    if (file == nullptr || std::ferror(file.get()) != 0) {
        throw TweaksFileError(fmt::format("{}: cannot be read ({}), expected a file of tunables",
                                          path, std::generic_category().message(errno)));
    }
    return content;
}

// One reading of a file: its tunables, checked one by one and then together.
class Reading {
public:
    explicit Reading(std::string path) : m_path(std::move(path)) {
        try {
            for (auto&& [key, node] : toml::parse(readFile(m_path))) {
                add(key.str(), node);
            }
        } catch (const toml::parse_error& error) {
            throw TweaksFileError(fmt::format("{}:{}: not TOML: {}", m_path,
                                              error.source().begin.line, error.description()));
        }
    }

    // The values to apply, where `defaults` fills what is not in the file or is pinned.
    std::vector<u32> resolve(const std::vector<u32>& defaults,
                             const std::set<std::string, CaseInsensitiveLess>& pinned) const {
        std::vector<u32> values = defaults;
        for (std::size_t i = 0; i < tunables.size(); ++i) {
            if (m_entries[i] && pinned.count(tunables[i].name) == 0) {
                values[i] = m_entries[i]->value;
            }
        }
        for (std::size_t i = firstBound + 1; i < tunables.size(); ++i) {
            if ((m_entries[i - 1] || m_entries[i]) && values[i - 1] >= values[i]) {
                failOrder(i - 1, values);
            }
        }
        return values;
    }

private:
    struct Entry {
        u32 value;
        toml::source_index line;
    };

    [[noreturn]] void fail(toml::source_index line, std::string_view name,
                           const std::string& problem) const {
        throw TweaksFileError(fmt::format("{}:{}: {}: {}", m_path, line, name, problem));
    }

    // The bounds at `lower` and above it, at least one of them in the file, are out of order.
    [[noreturn]] void failOrder(std::size_t lower, const std::vector<u32>& values) const {
        const bool nameUpper = m_entries[lower + 1].has_value();
        const std::size_t named = nameUpper ? lower + 1 : lower;
        const std::size_t other = nameUpper ? lower : lower + 1;
        fail(m_entries[named]->line, tunables[named].name,
             fmt::format("is {}, expected {} than {}, which is {}", values[named],
                         nameUpper ? "more" : "less", tunables[other].name, values[other]));
    }

    void add(std::string_view name, const toml::node& node) {
        const toml::source_index line = node.source().begin.line;
        const CaseInsensitiveLess less;
        const auto* found =
            std::find_if(tunables.begin(), tunables.end(), [&](const Tunable& tunable) {
                return !less(tunable.name, std::string(name)) &&
                       !less(std::string(name), tunable.name);
            });
        if (found == tunables.end()) {
            fail(line, name, "is not a tunable, expected one of " + names());
        }
        std::optional<Entry>& entry = m_entries[static_cast<std::size_t>(found - tunables.begin())];
        if (entry) {
            fail(std::max(line, entry->line), found->name, "is in the file twice, expected once");
        }
        entry = Entry{valueOf(*found, node), line};
    }

    static std::string names() {
        std::array<const char*, tunables.size()> all{};
        std::transform(tunables.begin(), tunables.end(), all.begin(),
                       [](const Tunable& tunable) { return tunable.name; });
        return fmt::format("{}", fmt::join(all, ", "));
    }

    u32 valueOf(const Tunable& tunable, const toml::node& node) const {
        const toml::source_index line = node.source().begin.line;
        if (tunable.kind == Kind::Flag) {
            if (const auto flag = node.value_exact<bool>()) {
                return *flag ? 1 : 0;
            }
            fail(line, tunable.name, describe(node) + ", expected true or false");
        }
        const auto number = node.value_exact<s64>();
        if (!number || *number < s64{tunable.least} || *number > s64{tunable.most}) {
            fail(line, tunable.name,
                 fmt::format("{}, expected a whole number from {} to {}", describe(node),
                             tunable.least, tunable.most));
        }
        return static_cast<u32>(*number);
    }

    static std::string describe(const toml::node& node) {
        if (const auto number = node.value_exact<s64>()) {
            return fmt::format("is {}", *number);
        }
        if (const auto text = node.value_exact<std::string_view>()) {
            return fmt::format("is the text \"{}\"", *text);
        }
        std::ostringstream type; // the names of types can only be streamed
        type << node.type();
        return "is of type " + type.str();
    }

    const std::string m_path;
    std::array<std::optional<Entry>, tunables.size()> m_entries;
};

class Descriptor {
public:
    // Of what was just opened; -1 if it could not be.
    Descriptor(int value, const std::string& path) : m_value(value) {
        if (value < 0) {
            fail(path);
        }
    }
    ~Descriptor() { close(m_value); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const { return m_value; }

    [[noreturn]] static void fail(const std::string& path) {
        throw TweaksFileError(fmt::format("{}: its folder cannot be watched ({})", path,
                                          std::generic_category().message(errno)));
    }

private:
    const int m_value;
};

} // namespace

// Waits for changes of the file, by watching its folder: a watch on the file itself would end with
// the first replacement.
class TweaksFile::Watch {
public:
    explicit Watch(const std::string& path)
        : m_path(path),
          m_inotify(inotify_init1(IN_CLOEXEC), path),
          m_stop(eventfd(0, EFD_CLOEXEC), path) {
        // Not the single writes and not the creation: a file that is half written is no news yet.
        constexpr u32 events =
            IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_MOVE_SELF | IN_ONLYDIR;
        const std::filesystem::path folder = m_path.parent_path();
        if (inotify_add_watch(m_inotify, folder.empty() ? "." : folder.c_str(), events) < 0) {
            Descriptor::fail(path);
        }
    }

    // Whether the file changed; false after stop().
    bool wait() {
        for (;;) {
            std::array<pollfd, 2> polled{{{m_inotify, POLLIN, 0}, {m_stop, POLLIN, 0}}};
            if (poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) {
                Descriptor::fail(m_path);
            }
            if (polled[1].revents != 0) {
                return false;
            }
            if (polled[0].revents != 0 && takeEvents()) {
                return true;
            }
        }
    }

    void stop() { eventfd_write(m_stop, 1); }

private:
    // Whether one of the events that are there concerns the file.
    bool takeEvents() {
        alignas(inotify_event) std::array<char, 4096> buffer;
        const ssize_t length = read(m_inotify, buffer.data(), buffer.size());
        if (length < 0) {
            Descriptor::fail(m_path);
        }
        bool changed = false;
        for (const char* at = buffer.data(); at < buffer.data() + length;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(at);
            changed = concernsFile(event) || changed;
            at += sizeof(inotify_event) + event.len;
        }
        return changed;
    }

    bool concernsFile(const inotify_event& event) const {
        if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
            throw TweaksFileError(fmt::format("{}: its folder is gone", m_path.native()));
        }
        return (event.mask & IN_Q_OVERFLOW) != 0 ||
               (event.len != 0 && m_path.filename() == event.name);
    }

    const std::filesystem::path m_path;
    const Descriptor m_inotify;
    const Descriptor m_stop;
};

TweaksFile::TweaksFile(std::string path, const std::vector<std::string>& pinned)
    : m_path(std::move(path)),
      m_pinned(pinned.begin(), pinned.end()),
      m_defaults(valuesInForce()) {}

TweaksFile::~TweaksFile() {
    if (m_thread.joinable()) {
        m_watch->stop();
        m_thread.join();
    }
}

void TweaksFile::load() {
    apply(Reading(m_path).resolve(m_defaults, m_pinned));
}

void TweaksFile::follow() {
    m_watch = std::make_unique<Watch>(m_path);
    m_thread = std::thread(&TweaksFile::followChanges, this);
}

void TweaksFile::apply(const std::vector<u32>& values) {
    std::unique_lock<std::mutex> lock(DynamicTweaks::instance()->together);
    std::vector<std::string> changes;
    for (std::size_t i = 0; i < tunables.size(); ++i) {
        const Tunable& tunable = tunables[i];
        const u32 before = tunable.get();
        if (values[i] != before && m_pinned.count(tunable.name) == 0) {
            tunable.set(values[i]);
            changes.push_back(fmt::format("{} {} -> {}", tunable.name, textOf(tunable, before),
                                          textOf(tunable, values[i])));
        }
    }
    lock.unlock();
    if (!changes.empty() || m_refused) {
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << " " << m_path << ": "
            << (changes.empty() ? "as before" : fmt::format("{}", fmt::join(changes, ", ")))
            << std::endl;
    }
    m_refused = false;
}

void TweaksFile::followChanges() {
    try {
        do {
            reload();
        } while (m_watch->wait());
    } catch (const std::exception& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << " " << error.what() << "; changes are no longer followed" << std::endl;
    }
}

void TweaksFile::reload() {
    try {
        load();
    } catch (const TweaksFileError& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << " " << error.what() << "; the values in force stay" << std::endl;
        m_refused = true;
    }
}
