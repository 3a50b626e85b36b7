#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "common/infra/Singleton.h"

#include <map>
#include <string>

template <typename T>
struct DefaultTweakValue {
    DefaultTweakValue() : m_valid(false), m_value() {}
    DefaultTweakValue(const T& value) : m_valid(true), m_value(value) {}

    bool m_valid;
    T m_value;
};

class ANALYTICS_EXPORT Tweaks : public Singleton<Tweaks, Tweaks> {
public:
    u32 uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& defaultValue);

    std::map<std::string, u32> values;
};
