#include "host/services/TweaksFileWatch.h"

#include "common/infra/Defs.h"
#include "host/services/Clock.h"
#include "host/services/TweaksFileError.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <list>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr int maxLinks = 40; // as in the kernel's own lookup

// Of the folders on the way.
constexpr u32 wayEvents = IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                          IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Of the file's own folder. Single writes are left out: the file is not whole until it is closed.
constexpr u32 fileEvents = wayEvents | IN_CLOSE_WRITE;

[[noreturn]] void failWatching(const fs::path& file) {
    throw std::system_error(errno, std::generic_category(),
                            file.native() + ": its changes cannot be watched");
}

FileDescriptor checked(int descriptor, const fs::path& file) {
    if (descriptor < 0) {
        failWatching(file);
    }
    return FileDescriptor(descriptor);
}

std::optional<fs::path> linkTarget(const fs::path& link) {
    std::error_code isNoLink;
    fs::path target = fs::read_symlink(link, isNoLink);
    return isNoLink ? std::nullopt : std::optional(std::move(target));
}

// Whether a writer has created it, who will close it when it is whole. A hard link to another file
// is whole at once.
bool isBeingWritten(const fs::path& created) {
    std::error_code error;
    return fs::is_regular_file(fs::symlink_status(created, error)) &&
           fs::hard_link_count(created, error) == 1;
}

} // namespace

// The names that lead to a file at one moment, each watched in its folder. A watch on the file
// itself would end with the first replacement.
class TweaksFileWatch::Way {
public:
    explicit Way(const fs::path& file)
        : m_file(file), m_inotify(checked(inotify_init1(IN_CLOEXEC), file)) {
        fs::path folder = file.is_absolute() ? "/" : ".";
        std::list<fs::path> names(file.begin(), file.end());
        for (int links = 0; !names.empty() && links <= maxLinks;) {
            const fs::path name = std::move(names.front());
            names.pop_front();
            if (!watch(folder, name, names.empty())) {
                return;
            }
            if (const auto target = linkTarget(folder / name)) {
                names.insert(names.begin(), target->begin(), target->end());
                ++links;
            } else {
                folder /= name;
            }
        }
    }

    // Whether the file can be followed to its end.
    bool isComplete() const { return m_isComplete; }

    int descriptor() const { return m_inotify.get(); }

    // Reads the pending events. True if one of them concerns the way.
    bool takeEvents() const {
        alignas(inotify_event) std::array<char, 4096> buffer;
        const ssize_t length = ::read(m_inotify.get(), buffer.data(), buffer.size());
        if (length < 0) {
            failWatching(m_file);
        }
        bool isConcerned = false;
        for (const char* at = buffer.data(); at < buffer.data() + length;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(at);
            isConcerned = concerns(event) || isConcerned;
            at += sizeof(inotify_event) + event.len;
        }
        return isConcerned;
    }

private:
    // Watches before the name is looked up, so that no change between the two is missed. False if
    // the way ends before this folder.
    bool watch(const fs::path& folder, const fs::path& name, bool isLast) {
        const int watched =
            inotify_add_watch(m_inotify.get(), folder.c_str(), isLast ? fileEvents : wayEvents);
        if (watched >= 0) {
            m_names.emplace(std::pair(watched, name.native()), folder / name);
            return true;
        }
        if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) {
            return false;
        }
        if (errno != EACCES) {
            failWatching(m_file);
        }
        m_isComplete = m_isComplete && !isLast;
        return true;
    }

    // An event without a name concerns the folder itself, or says that events were lost.
    bool concerns(const inotify_event& event) const {
        if (event.len == 0) {
            return true;
        }
        const auto found = m_names.find({event.wd, event.name});
        return found != m_names.end() &&
               ((event.mask & IN_CREATE) == 0 || !isBeingWritten(found->second));
    }

    const fs::path& m_file;
    const FileDescriptor m_inotify;
    std::map<std::pair<int, std::string>, fs::path> m_names; // by watch and name
    bool m_isComplete = true;
};

TweaksFileWatch::TweaksFileWatch(std::string path)
    : m_path(std::move(path)), m_stop(checked(eventfd(0, EFD_CLOEXEC), m_path)) {
    renew();
}

TweaksFileWatch::~TweaksFileWatch() = default;

bool TweaksFileWatch::wait(int timeoutMs) {
    const u64 beginNs = monotonicNs();
    for (int leftMs = timeoutMs;;) {
        std::array<pollfd, 2> polled{{{m_way->descriptor(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}}};
        const int ready = ::poll(polled.data(), polled.size(), leftMs);
        if (ready < 0 && errno != EINTR) {
            failWatching(m_path);
        }
        if (ready > 0 && polled[1].revents != 0) {
            return false;
        }
        if (ready == 0 || (ready > 0 && m_way->takeEvents())) {
            return true;
        }
        if (timeoutMs >= 0) { // an event of no concern does not make the wait longer
            leftMs = timeoutMs - static_cast<int>((monotonicNs() - beginNs) / nsPerMs);
            if (leftMs <= 0) {
                return true;
            }
        }
    }
}

void TweaksFileWatch::renew() {
    m_way = std::make_unique<Way>(m_path);
    if (!m_way->isComplete()) {
        throw TweaksFileError(fmt::format("{}: its folder cannot be watched ({})", m_path.native(),
                                          std::generic_category().message(EACCES)));
    }
}

void TweaksFileWatch::stop() {
    eventfd_write(m_stop.get(), 1);
}
