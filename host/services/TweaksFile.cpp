#include "host/services/TweaksFile.h"

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Log.h"
#include "host/services/FileTunables.h"
#include "host/services/Text.h"
#include "host/services/TweaksFileWatch.h"
#include "host/services/TweaksReading.h"

#include <fmt/format.h>

#include <utility>

namespace {

constexpr int unlimitedMs = -1;
constexpr int retryMs = 1000;

// As a whole: only a tunable that is not live can fail, and these come first.
void set(const FileTunableValues& before, const FileTunableValues& after) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        if (after[i] != before[i]) {
            fileTunables[i].set(after[i]);
        }
    }
}

} // namespace

TweaksFileError::TweaksFileError(const std::string& message)
    : std::runtime_error(escaped(message)) {}

TweaksFile::TweaksFile(std::string path, const std::vector<std::string>& pinned)
    : m_path(std::move(path)),
      m_shownPath(escaped(m_path)),
      m_pinned(pinned.begin(), pinned.end()),
      m_defaults(fileTunablesInForce()) {}

TweaksFile::~TweaksFile() {
    if (m_thread.joinable()) {
        m_watch->stop();
        m_thread.join();
    }
}

void TweaksFile::load() {
    const TweaksReading reading(m_path);
    CheckedLock lock(DynamicTweaks::instance()->together);
    const FileTunableValues before = fileTunablesInForce();
    const FileTunableValues after = reading.resolve(m_defaults, before, m_pinned);
    bool isNews = m_refused;
    const std::string changes = describe(reading, before, after, isNews);
    set(before, after);
    lock.unlock();
    m_refused = false;
    if (isNews || !changes.empty()) {
        LogItem(LogModuleCommon, isNews ? WarnLevel : InfoLevel, __PRETTY_FUNCTION__, 3)
            << " " << m_shownPath << ": " << (changes.empty() ? "as before" : changes.c_str())
            << std::endl;
    }
}

void TweaksFile::follow() {
    m_watch = std::make_unique<TweaksFileWatch>(m_path);
    m_thread = std::thread([this] {
        while (followNext()) {
        }
    });
}

// What changes, for the log; empty if nothing does. Sets `isReset` if a value changes because the
// file no longer names the tunable.
std::string TweaksFile::describe(const TweaksReading& reading, const FileTunableValues& before,
                                 const FileTunableValues& after, bool& isReset) const {
    std::string changes;
    for (std::size_t i = 0; i < after.size(); ++i) {
        const FileTunable& tunable = fileTunables[i];
        if (after[i] != before[i]) {
            isReset = isReset || !reading.names(i);
            changes += fmt::format("{}{} {} -> {}{}{}", changes.empty() ? "" : ", ", tunable.name,
                                   valueText(tunable, before[i]), valueText(tunable, after[i]),
                                   reading.names(i) ? "" : " (not in the file: the default)",
                                   tunable.isLive || !m_watch ? "" : " (at the next start)");
        }
    }
    return changes;
}

// Waits for a change and loads the file. False after the watch's stop().
bool TweaksFile::followNext() {
    try {
        const int waitMs = std::exchange(m_waitMs, retryMs);
        if (!m_watch->wait(waitMs)) {
            return false;
        }
        m_watch->renew();
        load();
        m_waitMs = unlimitedMs;
    } catch (const TweaksFileError& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << " " << error.what() << "; the values in force stay" << std::endl;
        m_refused = true;
        m_waitMs = unlimitedMs;
    } catch (const std::exception& error) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << " " << m_shownPath << ": " << error.what() << "; tried again in a second"
            << std::endl;
    }
    return true;
}
