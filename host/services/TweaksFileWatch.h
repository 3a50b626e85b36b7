#pragma once

#include "host/services/FileDescriptor.h"

#include <filesystem>
#include <memory>
#include <string>

// Sees when a tunables file changes: when it is written or its permissions change, and when
// anything on the way to it is created, replaced or removed. On the way are the folders of its
// path and, where one of its names is a symbolic link, the way to the link's target.
//
// The kernel does not watch a folder that may be passed but not read: above the file, such a folder
// is left out. What else happens in a watched folder wakes the waiting thread and is dropped.
//
// One thread waits; any may call stop().
class TweaksFileWatch {
public:
    // Throws as renew() does.
    explicit TweaksFileWatch(std::string path);
    ~TweaksFileWatch();
    TweaksFileWatch(const TweaksFileWatch&) = delete;
    TweaksFileWatch& operator=(const TweaksFileWatch&) = delete;

    // Waits until the file may have changed since the last renew(), at most `timeoutMs` if that is
    // not negative. False after stop(). Throws std::system_error.
    bool wait(int timeoutMs);

    // Looks up the way to the file anew. To be called after each change, before the file is read.
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
