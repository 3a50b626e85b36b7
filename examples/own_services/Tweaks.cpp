#include "common/infra/Tweaks.h"

u32 Tweaks::uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& defaultValue) {
    const auto found = values.find(name);
    return found == values.end() ? defaultValue.m_value : found->second;
}
