#pragma once

#include "tests/support/Files.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

// A process that forwards with spool, output and engine is killed at random moments, so many times;
// a last one sends what is left. Every record that the output got, since it was accepted, is stored
// by the engine, and those of each process are in order, without gaps, repeats aside.

// How often; a few times unless the environment says otherwise.
inline int killsOfARun() {
    const char* text = std::getenv("ANALYTICS_TEST_KILLS");
    return text == nullptr ? 3 : std::stoi(text);
}

// The sequences of each process in the order in which they came; lines that a kill has torn are
// none.
inline std::map<std::string, std::vector<std::uint64_t>>
sequencesByBoot(const std::vector<std::string>& lines) {
    std::map<std::string, std::vector<std::uint64_t>> sequences;
    for (const std::string& line : lines) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        if (!record.is_discarded()) {
            sequences[record["boot"]].push_back(record["sequence"]);
        }
    }
    return sequences;
}

inline std::vector<std::string> linesOf(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

// `engine` are the options that name it, `stored` reads what it holds.
inline void killAtRandomMoments(const std::string& engine,
                                const std::function<std::vector<std::string>()>& stored) {
    const TempFolder folder;
    const auto pusher = [&](const std::string& count) {
        std::istringstream words(PUSHER " " + count + " " + engine + " --format jsonl --spool " +
                                 (folder / "spool") + " --output " + (folder / "copy"));
        return std::vector<std::string>(std::istream_iterator<std::string>(words), {});
    };
    std::mt19937 random(std::random_device{}());
    const std::string copy = folder.write("copy", "");
    for (int i = 0; i < killsOfARun(); ++i) {
        const auto size = std::filesystem::file_size(copy);
        Process process(pusher("1000000000"), folder / "log");
        ASSERT_TRUE(waitUntil([&] { return std::filesystem::file_size(copy) > size; }))
            << process.output();
        poll(nullptr, 0, static_cast<int>(random() % 300));
    }
    Process last(pusher("0"), folder / "log");
    EXPECT_EQ(last.wait(), 0) << last.output();

    std::map<std::string, std::vector<std::uint64_t>> arrived;
    for (const auto& [boot, accepted] : sequencesByBoot(linesOf(copy))) {
        const auto hasLast = [&, name = boot, sequence = accepted.back()] {
            arrived = sequencesByBoot(stored()); // the reader may be behind
            const auto& all = arrived[name];
            return std::find(all.begin(), all.end(), sequence) != all.end();
        };
        EXPECT_TRUE(waitUntil(hasLast)) << "a record was accepted, and is lost";
        std::uint64_t highest = 0;
        for (const std::uint64_t sequence : arrived[boot]) {
            ASSERT_LE(sequence, highest + 1) << "a record is missing or was overtaken";
            highest = std::max(highest, sequence);
        }
    }
}
