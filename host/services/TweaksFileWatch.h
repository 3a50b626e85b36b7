#pragma once

#include "common/infra/Export.h"
#include "host/services/FileDescriptor.h"

#include <filesystem>
#include <memory>
#include <string>

// Watches a tunables file: it changes when it is written, when its permissions change, and when
// anything on the way to it is created, replaced or removed. On the way are the folders of its
// path and, where a name is a symbolic link, the way to the link's target.
//
// The kernel cannot watch a folder without read permission. Such a folder above the file's own is
// left out. Other events in a watched folder wake the waiting thread and are ignored.
//
// One thread waits; any may call stop().
class ANALYTICS_TAG TweaksFileWatch {
public:
    // Throws as renew() does.
    explicit TweaksFileWatch(std::string path);
    ~TweaksFileWatch();
    TweaksFileWatch(const TweaksFileWatch&) = delete;
    TweaksFileWatch& operator=(const TweaksFileWatch&) = delete;

    // Waits until the file may have changed since the last renew(), at most `timeoutMs` if that is
    // not negative. False after stop(). Throws std::system_error.
    bool wait(int timeoutMs);

    // Looks up the way to the file again. Call it after each change, before reading the file.
    // Throws TweaksFileError if the folder of the file, or of a link to it, cannot be watched, and
    // std::system_error if the kernel has no more watches.
    void renew();

    void stop();

private:
    class Way;

    const std::filesystem::path m_path;
    const FileDescriptor m_stop;
    std::unique_ptr<Way> m_way;
};
