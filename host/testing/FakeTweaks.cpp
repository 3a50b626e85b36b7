#include "host/testing/FakeTweaks.h"

#include "common/infra/Tweaks.h"

u32 Tweaks::uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& defaultValue) {
    const auto found = uintTweaks().find(name);
    if (found != uintTweaks().end()) {
        return found->second;
    }
    return defaultValue.m_valid ? defaultValue.m_value : 0;
}

std::map<std::string, u32>& uintTweaks() {
    static std::map<std::string, u32> values;
    return values;
}
