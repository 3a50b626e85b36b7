#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Tweaks.h"
#include "host/services/FileTunableValues.h"
#include "host/services/TweaksFileError.h"

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

class ANALYTICS_TAG TweaksFileWatch;
class ANALYTICS_TAG TweaksReading;

// A TOML file whose top-level keys are tunables, without regard to letter case:
//
//     t_StorageAnalyticsIntervalSec = 3600          # seconds, 1 to 4294967
//     t_disablePeriodicAnalytics = false
//     t_StorageAnalyticsLatencyThreshold = 50_000   # microseconds
//     t_StorageAnalyticsLatencyFast = 1_000         # microseconds, as the next three:
//     t_StorageAnalyticsLatencyModerate = 5_000     # upper bounds, strictly ascending
//     t_StorageAnalyticsLatencySlow = 20_000
//     t_StorageAnalyticsLatencyVerySlow = 100_000
//
// It is a regular file of at most 64 KiB, with at most one tunable in a line and lines of at most
// 1,024 bytes. The interval goes to Tweaks, the others are fields of DynamicTweaks. A tunable
// that the file does not name has the value that was in force when the TweaksFile was made. A file
// is applied as a whole or, if anything in it is wrong or memory fails, not at all. What changed is
// logged in one line: at WarnLevel if a value is reset because the file no longer names it, or if
// the file was refused before; else at InfoLevel.
//
// Used by one thread; once it follows the file, only by its own.
class ANALYTICS_EXPORT TweaksFile {
public:
    // `pinned` names tunables that were set elsewhere: the file's values for them are checked and
    // left out.
    explicit TweaksFile(std::string path, const std::vector<std::string>& pinned = {});
    // Ends the following.
    ~TweaksFile();
    TweaksFile(const TweaksFile&) = delete;
    TweaksFile& operator=(const TweaksFile&) = delete;

    // Reads the file and applies it. Throws TweaksFileError.
    void load();

    // Starts a thread that loads the file whenever it was written, replaced or removed, also by a
    // change of a link or folder on the way to it. Changes since load() count. A file that cannot
    // be loaded is logged, and the last good values stay until it changes again. While memory or
    // the kernel's watches are short, the thread tries again every second.
    // Called at most once. Throws TweaksFileError if the file's folder cannot be watched,
    // std::system_error if the kernel has no more watches.
    void follow();

private:
    bool followNext();
    std::string describe(const TweaksReading& reading, const FileTunableValues& before,
                         const FileTunableValues& after, bool& isReset) const;

    const std::string m_path;
    const std::string m_shownPath;
    const std::set<std::string, CaseInsensitiveLess> m_pinned;
    const FileTunableValues m_defaults;
    bool m_refused = false; // the last load by the thread
    int m_waitMs = 0;       // until the thread's next load at the latest; negative: no limit
    std::unique_ptr<TweaksFileWatch> m_watch;
    std::thread m_thread;
};
