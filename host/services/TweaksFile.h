#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Tweaks.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// What is wrong with a tunables file, in one line: "file:line: name: what it is, what was
// expected".
class ANALYTICS_EXPORT TweaksFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

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
// The interval goes to Tweaks, the others are fields of DynamicTweaks. What the file does not name
// has the value that was in force when the TweaksFile was made. A file is applied as a whole or, if
// anything in it is wrong, not at all. What changed is logged in one line.
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

    // Starts a thread that loads the file anew whenever it was written, replaced or removed, at
    // first if it was since load(). A file that cannot be loaded is logged, and the last good
    // values stay. Called at most once. Throws TweaksFileError if the file's folder cannot be
    // watched.
    //
    // A symbolic link is followed as a link: it is its replacement that is seen, not its target's.
    void follow();

private:
    class Watch;

    void apply(const std::vector<u32>& values);
    void followChanges();
    void reload();

    const std::string m_path;
    const std::set<std::string, CaseInsensitiveLess> m_pinned;
    const std::vector<u32> m_defaults; // of the tunables that can be in a file, in their order
    bool m_refused = false;            // the last load by the thread
    std::unique_ptr<Watch> m_watch;
    std::thread m_thread;
};
