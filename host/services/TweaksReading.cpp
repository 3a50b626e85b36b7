#include "host/services/TweaksReading.h"

#include "host/services/FileDescriptor.h"
#include "host/services/Text.h"
#include "host/services/TweaksFileError.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <system_error>
#include <utility>

namespace {

constexpr std::size_t maxFileBytes = 65'536;
constexpr std::size_t maxLineBytes = 1024;

[[noreturn]] void failReading(const std::string& path) {
    throw TweaksFileError(fmt::format("{}: cannot be read ({}), expected a file of tunables", path,
                                      std::generic_category().message(errno)));
}

FileDescriptor openRegularFile(const std::string& path) {
    // O_NONBLOCK: opening a FIFO would wait for its writer.
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        failReading(path);
    }
    if (!S_ISREG(status.st_mode)) {
        throw TweaksFileError(path + ": is not a regular file, expected a file of tunables");
    }
    return file;
}

std::string readFile(const std::string& path) {
    const FileDescriptor file = openRegularFile(path);
    std::string content(maxFileBytes + 1, '\0');
    std::size_t length = 0;
    for (ssize_t count = 1; count != 0 && length < content.size();) {
        count = ::read(file.get(), &content[length], content.size() - length);
        if (count < 0 && errno != EINTR) {
            failReading(path);
        }
        length += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    if (length > maxFileBytes) {
        throw TweaksFileError(
            fmt::format("{}: is too long, expected at most {} bytes", path, maxFileBytes));
    }
    content.resize(length);
    return content;
}

// Of the tunable, whatever the letter case; fileTunableCount if it is none.
std::size_t indexOf(std::string_view name) {
    const auto isSame = [](char left, char right) { return lowerCase(left) == lowerCase(right); };
    const auto isNamed = [&](const FileTunable& tunable) {
        const std::string_view other = tunable.name;
        return std::equal(name.begin(), name.end(), other.begin(), other.end(), isSame);
    };
    return static_cast<std::size_t>(
        std::find_if(fileTunables.begin(), fileTunables.end(), isNamed) - fileTunables.begin());
}

// "is not a tunable, expected one of ..."
std::string notATunable() {
    std::array<const char*, fileTunableCount> names{};
    std::transform(fileTunables.begin(), fileTunables.end(), names.begin(),
                   [](const FileTunable& tunable) { return tunable.name; });
    return fmt::format("is not a tunable, expected one of {}", fmt::join(names, ", "));
}

std::string describe(const toml::node& node) {
    if (const auto number = node.value_exact<s64>()) {
        return fmt::format("is {}", *number);
    }
    if (const auto text = node.value_exact<std::string_view>()) {
        return fmt::format("is the text \"{}\"", *text);
    }
    std::ostringstream type; // the names of types can only be streamed
    type << node.type();
    return "is of type " + type.str();
}

std::string expectation(const FileTunable& tunable) {
    return tunable.kind == TunableKind::Flag
               ? "true or false"
               : fmt::format("a whole number from {} to {}", tunable.least, tunable.most);
}

std::optional<u32> valueOf(const FileTunable& tunable, const toml::node& node) {
    if (tunable.kind == TunableKind::Flag) {
        const auto flag = node.value_exact<bool>();
        return flag ? std::optional<u32>(*flag) : std::nullopt;
    }
    const auto number = node.value_exact<s64>();
    const bool fits = number && *number >= s64{tunable.least} && *number <= s64{tunable.most};
    return fits ? std::optional(static_cast<u32>(*number)) : std::nullopt;
}

} // namespace

TweaksReading::TweaksReading(std::string path) : m_path(std::move(path)) {
    const std::string content = readFile(m_path);
    std::string_view rest = content;
    for (u32 line = 1; !rest.empty(); ++line) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        if (length > maxLineBytes) {
            fail(line, fmt::format("is too long, expected at most {} bytes", maxLineBytes));
        }
        const std::size_t whole = std::min(length + 1, rest.size());
        addLine(line, rest.substr(0, whole));
        rest.remove_prefix(whole);
    }
}

FileTunableValues
TweaksReading::resolve(const FileTunableValues& defaults, const FileTunableValues& inForce,
                       const std::set<std::string, CaseInsensitiveLess>& pinned) const {
    FileTunableValues values = inForce;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (pinned.count(fileTunables[i].name) == 0) {
            values[i] = m_entries[i] ? m_entries[i]->value : defaults[i];
        }
    }
    for (std::size_t i = firstBound + 1; i < values.size(); ++i) {
        if ((m_entries[i - 1] || m_entries[i]) && values[i - 1] >= values[i]) {
            failOrder(i - 1, values);
        }
    }
    return values;
}

// Each line is parsed alone. The parser destroys nested values by recursion, and a line is too
// short to nest deep enough to exhaust the stack.
void TweaksReading::addLine(u32 line, std::string_view text) {
    try {
        for (auto&& [key, node] : toml::parse(text)) {
            const std::size_t index = indexOf(key.str());
            if (index == fileTunableCount) {
                fail(line, fmt::format("{}: {}", key.str(), notATunable()));
            }
            const FileTunable& tunable = fileTunables[index];
            const std::optional<u32> value = valueOf(tunable, node);
            if (!value) {
                fail(line, fmt::format("{}: {}, expected {}", tunable.name, describe(node),
                                       expectation(tunable)));
            }
            if (names(index)) {
                fail(line, fmt::format("{}: is in the file twice, expected once", tunable.name));
            }
            m_entries[index] = Entry{*value, line};
        }
    } catch (const toml::parse_error& error) {
        fail(line, fmt::format("not TOML: {}; expected a name and its value in one line",
                               error.description()));
    }
}

void TweaksReading::fail(u32 line, std::string_view problem) const {
    throw TweaksFileError(fmt::format("{}:{}: {}", m_path, line, problem));
}

// The bounds at `lower` and above it, at least one of them in the file, are out of order.
void TweaksReading::failOrder(std::size_t lower, const FileTunableValues& values) const {
    const std::size_t named = names(lower + 1) ? lower + 1 : lower;
    const std::size_t other = named == lower ? lower + 1 : lower;
    fail(m_entries[named]->line,
         fmt::format("{}: is {}, expected {} than {}, which is {}", fileTunables[named].name,
                     values[named], named > other ? "more" : "less", fileTunables[other].name,
                     values[other]));
}
