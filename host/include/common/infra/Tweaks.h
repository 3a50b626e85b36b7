#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Lock.h"
#include "common/infra/Singleton.h"

#include <map>
#include <string>

// The default of a typed lookup: `m_valid` says whether there is one.
template <typename T>
struct ANALYTICS_TAG DefaultTweakValue {
    DefaultTweakValue() = default;
    DefaultTweakValue(const T& value) : m_valid(true), m_value(value) {}

    bool m_valid = false;
    T m_value{};
};

// Orders names without regard to letter case (ASCII).
struct ANALYTICS_EXPORT CaseInsensitiveLess {
    bool operator()(const std::string& left, const std::string& right) const;
};

// The host's tunables that are read when something is set up, by name and without regard to letter
// case. A lookup answers the tunable's value; the default if the tunable is not set or its text
// does not fit the type (which is logged); zero, false or the empty text if there is no default
// either. Every operation may be called from any thread.
class ANALYTICS_EXPORT Tweaks : public Singleton<Tweaks, Tweaks> {
public:
    std::string stringVal(const std::string& name,
                          const DefaultTweakValue<std::string>& defaultValue);
    s64 longVal(const std::string& name, const DefaultTweakValue<s64>& defaultValue);
    int intVal(const std::string& name, const DefaultTweakValue<int>& defaultValue);
    u32 uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& defaultValue);
    bool boolVal(const std::string& name, const DefaultTweakValue<bool>& defaultValue);

    // Sets a tunable to the text of its value: a decimal number, "true" or "false", or any text.
    void set(const std::string& name, const std::string& value);

private:
    template <typename T>
    T lookUp(const std::string& name, const DefaultTweakValue<T>& defaultValue) const;

    mutable CheckedMutex m_mutex;
    std::map<std::string, std::string, CaseInsensitiveLess> m_values ANALYTICS_GUARDED_BY(m_mutex);
};
