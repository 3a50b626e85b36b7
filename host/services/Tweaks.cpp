#include "common/infra/Tweaks.h"

#include "common/infra/Log.h"
#include "host/services/Text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <system_error>
#include <type_traits>

namespace {

template <typename T>
std::optional<T> parse(const std::string& text) {
    if constexpr (std::is_same_v<T, std::string>) {
        return text;
    } else if constexpr (std::is_same_v<T, bool>) {
        return text == "true" || text == "false" ? std::optional<T>(text == "true") : std::nullopt;
    } else {
        T value{};
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        return error == std::errc() && stop == end ? std::optional<T>(value) : std::nullopt;
    }
}

template <typename T>
constexpr const char* expectation = "any text";
template <>
constexpr const char* expectation<bool> = "true or false";
template <>
constexpr const char* expectation<int> = "a whole number of 32 bits";
template <>
constexpr const char* expectation<u32> = "a whole number from 0 to 4294967295";
template <>
constexpr const char* expectation<s64> = "a whole number of 64 bits";

} // namespace

bool CaseInsensitiveLess::operator()(const std::string& left, const std::string& right) const {
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(),
        [](char leftChar, char rightChar) { return lowerCase(leftChar) < lowerCase(rightChar); });
}

template <typename T>
T Tweaks::lookUp(const std::string& name, const DefaultTweakValue<T>& defaultValue) const {
    T fallback = defaultValue.m_valid ? defaultValue.m_value : T{};
    std::string text;
    {
        const CheckedLock lock(m_mutex);
        const auto found = m_values.find(name);
        if (found == m_values.end()) {
            return fallback;
        }
        text = found->second;
    }
    if (const std::optional<T> value = parse<T>(text)) {
        return *value;
    }
    LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
        << " tunable=" << name << " text=\"" << escaped(text) << "\" expected "
        << expectation<T> << std::endl;
    return fallback;
}

std::string Tweaks::stringVal(const std::string& name,
                              const DefaultTweakValue<std::string>& defaultValue) {
    return lookUp(name, defaultValue);
}

s64 Tweaks::longVal(const std::string& name, const DefaultTweakValue<s64>& defaultValue) {
    return lookUp(name, defaultValue);
}

int Tweaks::intVal(const std::string& name, const DefaultTweakValue<int>& defaultValue) {
    return lookUp(name, defaultValue);
}

u32 Tweaks::uintVal(const std::string& name, const DefaultTweakValue<unsigned int>& defaultValue) {
    return lookUp(name, defaultValue);
}

bool Tweaks::boolVal(const std::string& name, const DefaultTweakValue<bool>& defaultValue) {
    return lookUp(name, defaultValue);
}

void Tweaks::set(const std::string& name, const std::string& value) {
    std::string text = value; // all that may fail is done before the value changes
    const CheckedLock lock(m_mutex);
    m_values[name].swap(text);
}
