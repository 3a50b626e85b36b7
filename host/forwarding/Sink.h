#pragma once

#include "common/infra/Defs.h"
#include "common/infra/Export.h"
#include "host/forwarding/Record.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

struct ANALYTICS_TAG Answer {
    // What becomes of a record that was sent.
    enum class Fate : u32 {
        Delivered, // the engine has it
        Failed,    // it never will: another attempt would end the same way
        TryAgain   // another attempt may succeed
    };

    u64 ticket = 0;
    Fate fate = Fate::Delivered;
    // Why not, in a few words, if it was not delivered. Failures are counted by reason, so it holds
    // no figure that differs from record to record.
    std::string reason;
};
using Fate = Answer::Fate; // in the tagged type: clang puts no tag on an enumeration

// Takes the answers of a sink: the forwarder.
class ANALYTICS_TAG IAnswers {
public:
    virtual ~IAnswers() = default;

    // Any thread may call it, also from send() and purge() and while holding locks of the sink. It
    // never calls a sink while it holds its own lock, and it does not wait. It needs no memory for
    // one answer of each record in flight. It ignores answers of tickets that are not in flight.
    virtual void answer(std::vector<Answer> answers) = 0;

    void answerOne(u64 ticket, Fate fate, std::string reason = {}) {
        std::vector<Answer> one(1);
        one[0] = {ticket, fate, std::move(reason)};
        answer(std::move(one));
    }
};

// "Delivered" for every record of the batch.
ANALYTICS_TAG inline std::vector<Answer> deliveredAll(const std::vector<const Record*>& batch) {
    std::vector<Answer> answers(batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
        answers[i].ticket = batch[i]->ticket;
    }
    return answers;
}

// Makes all of them failures.
ANALYTICS_TAG inline void failAll(std::vector<Answer>& answers, const std::string& reason) {
    for (Answer& answer : answers) {
        answer.fate = Fate::Failed;
        answer.reason = reason;
    }
}

// Where records go: an engine, a file, a registry of metrics. A sink makes one attempt for each
// record that it is sent. Retry, back-off, order, spool and deadline are the forwarder's.
//
//     call          | thread                               | when
//     --------------+--------------------------------------+---------------------------------------
//     constructor   | its owner's                          | before the forwarder's
//     start         | the forwarder's owner                | once, before all below
//     send, purge   | "forwarder", one call at a time      | from start on
//     IAnswers      | any: the sink's or its library's own | from the first send on, until the last
//                   |                                      | record in flight is answered
//     destructor    | the forwarder's owner                | after the forwarder's thread
//
// A record is in flight from send() until its answer. Each record sent is answered exactly once for
// each time it is sent. The forwarder has no more than `maxRecords` records and about `maxBytes`
// bytes in flight, so a sink's own queue is set to hold at least these.
//
// After a TryAgain, or when the oldest record in flight is not answered for the forwarder's answer
// time-out, the forwarder sends nothing more, calls purge(), waits until nothing is in flight,
// backs off, and sends again from the oldest record that was neither delivered nor failed, in
// order.
class ANALYTICS_TAG ISink {
public:
    static constexpr std::size_t maxRecords = 8192;
    static constexpr std::size_t maxBytes = std::size_t{16} << 20U;

    virtual ~ISink() = default;

    // The constructor checks the configuration and throws std::runtime_error, naming what is wrong
    // (a property, a topic, a file). An engine that is away is nothing wrong. It waits for the
    // network for a few seconds at most.

    // What log lines call it, such as "Kafka".
    virtual const char* name() const = 0;

    // Where the answers go. `answers` outlives the last call of the sink.
    virtual void start(IAnswers& answers) = 0;

    // Hands the records over, in order, without waiting for the network. Each of `batch` stays
    // valid until it is answered. Failures are answers. It throws only std::bad_alloc, when it has
    // taken none of the batch.
    virtual void send(const std::vector<const Record*>& batch) = 0;

    // Gives up what is in flight. Returns at once; each record in flight is then answered soon:
    // TryAgain, unless an answer of the engine was on its way. With nothing in flight it does
    // nothing. It throws only std::bad_alloc, and is then called again.
    virtual void purge() = 0;

    // The destructor ends the sink's threads; after it nothing is answered any more. Records that
    // are in flight are given up, and stay valid until its return. A process at its deadline ends
    // without it.
};
