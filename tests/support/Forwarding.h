#pragma once

#include "host/forwarding/Forwarder.h"
#include "tests/support/Examples.h"
#include "tests/support/Process.h"

#include <nlohmann/json.hpp>
#include <poll.h>

// What tests of engines share: an outbox with a forwarder to a sink, and a look at what was stored.

// A number that the environment gives, or else this one.
inline u64 numberFrom(const char* variable, u64 otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : std::stoull(text);
}
// How many records the long runs send.
inline const u64 recordsOfARun = numberFrom("ANALYTICS_TEST_RECORDS", 3'000);

// Sends parcels to an engine, and holds the account against what came of them.
class Sending {
public:
    explicit Sending(std::unique_ptr<ISink> sink)
        : m_forwarder(std::make_unique<Forwarder>(m_outbox, std::move(sink), std::vector<ISink*>{},
                                                  options())) {}

    void push(u64 count, std::size_t size = 0) {
        pushTexts(m_outbox, count, size);
        m_pushed += count;
    }
    u64 pushed() const { return m_pushed; }
    u64 delivered() { return m_forwarder->account().numbers().delivered; }

    // Ends the forwarder. The account has one record more than was pushed: its own.
    AccountNumbers end(std::chrono::seconds limit = std::chrono::seconds(20)) {
        EXPECT_TRUE(m_forwarder->stop(limit));
        AccountNumbers account = m_forwarder->account().numbers();
        EXPECT_TRUE(account.addsUp()) << account.text();
        EXPECT_EQ(account.pushed, ++m_pushed);
        EXPECT_EQ(account.dropped, 0U);
        m_forwarder.reset();
        return account;
    }

private:
    // Short pauses, and a host's name to look for.
    static ForwarderOptions options() {
        ForwarderOptions options;
        options.hostId = "host-1";
        options.firstBackOff = std::chrono::milliseconds(10);
        options.longestBackOff = std::chrono::milliseconds(100);
        options.answerTimeout = std::chrono::milliseconds(2'000);
        return options;
    }

    ParcelOutbox m_outbox{1'000'000};
    u64 m_pushed = 0;
    std::unique_ptr<Forwarder> m_forwarder;
};

// The sequences of each process in the order in which they came; a line that a kill has torn is
// none.
inline std::map<std::string, std::vector<u64>> sequencesByBoot(const std::string& lines) {
    std::map<std::string, std::vector<u64>> sequences;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        if (!record.is_discarded()) {
            sequences[record["boot"]].push_back(record["sequence"]);
        }
    }
    return sequences;
}

// The last one of a process. Repeats aside, the records are in order and without gaps.
inline u64 lastInOrder(const std::vector<u64>& sequences) {
    u64 last = 0;
    for (const u64 sequence : sequences) {
        EXPECT_LE(sequence, last + 1) << "a record is missing or was overtaken";
        last = std::max(last, sequence);
    }
    return last;
}
inline u64 lastInOrder(const std::string& lines) {
    const auto byBoot = sequencesByBoot(lines);
    return byBoot.empty() ? 0 : lastInOrder(byBoot.begin()->second);
}

// A process that forwards with spool, output and engine is killed at random moments, a few times
// unless the environment says otherwise; a last one sends what is left. Every record that the
// output got, since it was accepted, is stored by the engine in order. `engine` are the options
// that name it, `stored` reads what it holds.
inline void killAtRandomMoments(const std::string& engine,
                                const std::function<std::string()>& stored) {
    const TempFolder folder;
    const std::string copy = folder.write("copy", "");
    const std::string options =
        " " + engine + " --format jsonl --spool " + (folder / "spool") + " --output " + copy;
    std::mt19937 random(std::random_device{}());
    for (u64 kills = numberFrom("ANALYTICS_TEST_KILLS", 3); kills > 0; --kills) {
        const auto size = std::filesystem::file_size(copy);
        Process process(PUSHER " 1000000000" + options, folder / "log");
        ASSERT_TRUE(waitUntil([&] { return std::filesystem::file_size(copy) > size; }))
            << process.output();
        poll(nullptr, 0, static_cast<int>(random() % 300));
    }
    Process last(PUSHER " 0" + options, folder / "log");
    EXPECT_EQ(last.wait(), 0) << last.output();
    for (const auto& [boot, accepted] : sequencesByBoot(readFile(copy))) {
        EXPECT_TRUE(waitUntil([&, name = boot, sequence = accepted.back()] {
            return lastInOrder(sequencesByBoot(stored())[name]) >= sequence; // it may be behind
        })) << "a record was accepted, and is lost";
    }
}
