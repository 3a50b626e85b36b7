#pragma once

#include "common/infra/Export.h"
#include "common/infra/Tweaks.h"
#include "host/services/FileTunables.h"

#include <array>
#include <optional>
#include <set>
#include <string>
#include <string_view>

// What a tunables file says: a regular file of at most 64 KiB, in lines of at most 1,024 bytes,
// each of which holds one tunable at most.
class ANALYTICS_TAG TweaksReading {
public:
    // Reads the file and checks its tunables one by one. Throws TweaksFileError.
    explicit TweaksReading(std::string path);

    // Whether the file has the tunable.
    bool names(std::size_t tunable) const { return m_entries[tunable].has_value(); }

    // The values to apply: what is in force for a pinned tunable, the default for one that the file
    // does not name. Throws TweaksFileError if they do not fit together.
    FileTunableValues resolve(const FileTunableValues& defaults, const FileTunableValues& inForce,
                              const std::set<std::string, CaseInsensitiveLess>& pinned) const;

private:
    struct Entry {
        u32 value;
        u32 line;
    };

    void addLine(u32 line, std::string_view text);
    [[noreturn]] void fail(u32 line, std::string_view problem) const;
    [[noreturn]] void failOrder(std::size_t lower, const FileTunableValues& values) const;

    const std::string m_path;
    std::array<std::optional<Entry>, fileTunableCount> m_entries;
};
