// What docs/reference.md lists is held against the sources: nothing of theirs may be missing.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

std::string read(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string withoutLineEnds(const std::string& text) {
    return std::regex_replace(text, std::regex("[ \n]+"), " ");
}

// All sources of the product, one after the other.
std::string readSources() {
    std::string text;
    for (const char* const room : {"common", "host"}) {
        for (const auto& entry : fs::recursive_directory_iterator(fs::path(ROOT) / room)) {
            const std::string name = entry.path().string();
            const bool isTest = name.find("/testing/") != std::string::npos;
            if (!isTest && std::regex_search(name, std::regex("\\.(h|cpp)$"))) {
                text += read(entry.path());
            }
        }
    }
    return std::regex_replace(text, std::regex("(^|\n) *//[^\n]*"), "\n");
}

// What the first group of the pattern matches in a text, without repetition.
std::set<std::string> matches(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return found;
}

// The texts of the log lines: the literals that are streamed into them.
std::set<std::string> logTexts(const std::string& sources) {
    const std::string literal = R"("(?:\\.|[^"\\])*")";
    std::set<std::string> texts;
    for (const std::string& line : matches(
             sources, R"(((?:LogItem(?: item)?|LOG_LINE)\(\w+, (?:[^;"]|)" + literal + ")*);")) {
        for (const std::string& text : matches(line, "(" + literal + ")")) {
            texts.insert(
                std::regex_replace(text.substr(1, text.size() - 2), std::regex("\\\\(.)"), "$1"));
        }
    }
    return texts;
}

TEST(Reference, ListsWhatTheSourcesHave) {
    const std::string sources = readSources();
    const std::tuple<std::set<std::string>, std::size_t, std::string> rows[] = {
        // names, how many of them at least, and what stands around each
        {matches(sources, R"(\b(t_[A-Za-z]\w+))"), 7, ""},
        {logTexts(sources), 40, ""},
        {matches(sources, R"(\bEXPECT_OR_REPORT\(([^;\n]*?)\)(?:;|\n| <<))"), 10, ""},
        {matches(sources, R"(addEntry\(\s*"(\w+)\")"), 15, "`"}};
    const std::string document = withoutLineEnds(read(fs::path(ROOT) / "docs/reference.md"));
    for (const auto& [names, atLeast, quote] : rows) {
        EXPECT_GE(names.size(), atLeast) << "the sources were not read as they should be";
        for (const std::string& name : names) {
            EXPECT_NE(document.find(quote + withoutLineEnds(name) + quote), std::string::npos)
                << "missing: " << name;
        }
    }
}

} // namespace
