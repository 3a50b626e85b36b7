#include "host/forwarding/NatsSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingAnswers.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Examples.h"
#include "tests/support/Files.h"
#include "tests/support/Forwarding.h"
#include "tests/support/Process.h"
#include "tests/support/Test.h"

#include <nats/nats.h>

namespace {

using nlohmann::json;

constexpr const char* subject = "reports.storage";
// That for the names of the streams which take it.
const std::string streamQuestion = R"({"subject":"reports.storage"})";

using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;
using Context = std::unique_ptr<jsCtx, Destroy<jsCtx_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;

Connection connectTo(const std::string& urls) {
    natsConnection* made = nullptr;
    natsConnection_ConnectTo(&made, urls.c_str());
    return Connection(made);
}

std::string dataOf(const Message& message) {
    return {natsMsg_GetData(message.get()),
            static_cast<std::size_t>(natsMsg_GetDataLength(message.get()))};
}

// Servers on the loopback interface, each in a folder of its own, which let one user in, and a
// stream that each of them holds.
class NatsCluster {
public:
    explicit NatsCluster(const TempFolder& folder, std::size_t size = 1)
        : m_folder(folder), m_size(size), m_ports(freePorts(2 * size)), m_servers(size) {}

    // All servers, and the stream once they agree on it. `limits` are the stream's.
    void start(const json& limits = json::object()) {
        for (std::size_t i = 0; i < m_size; ++i) {
            const std::string name = "n" + std::to_string(i);
            const std::string file = m_folder.write(name + ".conf", configuration(name, i).dump());
            m_servers[i] = std::make_unique<Process>(
                std::vector<std::string>{"nats-server", "-c", file}, m_folder / (name + ".log"));
        }
        json stream = {{"name", "reports"}, {"subjects", {subject}}, {"num_replicas", m_size},
                       {"discard", "new"},  {"retention", "limits"}, {"storage", "file"}};
        stream.update(limits);
        ask("STREAM.CREATE.reports", stream.dump());
    }
    void kill(std::size_t server) { m_servers[server].reset(); }

    std::string urls(const std::string& user = "user:word@") const {
        std::string text;
        for (std::size_t i = 0; i < m_size; ++i) {
            text += (text.empty() ? "nats://" : ",nats://") + user + at(i);
        }
        return text;
    }
    NatsSettings settings(const std::string& user = "user:word@") const {
        return {urls(user), subject, "", "", "", ""};
    }
    // The server that leads the stream.
    std::size_t leader() {
        const std::string name = ask("STREAM.INFO.reports")["cluster"]["leader"];
        return static_cast<std::size_t>(name[1] - '0');
    }

    // What the stream holds, oldest first, one a line.
    std::string values() {
        std::string values;
        // The server that the reader is served by may be gone with it.
        EXPECT_TRUE(waitUntil([&] { return read(values); })) << "the stream is not read";
        return values;
    }

private:
    std::string at(std::size_t port) const { return "127.0.0.1:" + std::to_string(m_ports[port]); }

    json configuration(const std::string& name, std::size_t server) const {
        json made = {{"server_name", name},
                     {"listen", at(server)},
                     {"max_payload", 100'000},
                     {"jetstream", {{"store_dir", m_folder / (name + ".store")}}},
                     {"authorization", {{"user", "user"}, {"password", "word"}}}};
        for (std::size_t i = m_size; m_size > 1 && i < 2 * m_size; ++i) {
            made["cluster"].update({{"name", "c"}, {"listen", at(m_size + server)}});
            made["cluster"]["routes"].push_back("nats://" + at(i));
        }
        return made;
    }

    // What the servers answer, once they do without an error.
    json ask(const std::string& question, const std::string& details = "") {
        json answer;
        EXPECT_TRUE(waitUntil([&] {
            natsMsg* received = nullptr;
            const Connection connection = connectTo(urls());
            natsConnection_RequestString(&received, connection.get(),
                                         ("$JS.API." + question).c_str(), details.c_str(), 3'000);
            const Message message(received);
            answer = message == nullptr ? json() : json::parse(dataOf(message));
            return message != nullptr && !answer.contains("error");
        })) << question
            << answer;
        return answer;
    }

    bool read(std::string& values) {
        values.clear();
        const u64 count = ask("STREAM.INFO.reports")["state"]["messages"];
        const Connection connection = connectTo(urls());
        jsCtx* context = nullptr;
        natsConnection_JetStream(&context, connection.get(), nullptr);
        const Context owned(context);
        for (u64 sequence = 1; sequence <= count; ++sequence) {
            natsMsg* received = nullptr;
            if (js_GetMsg(&received, context, "reports", sequence, nullptr, nullptr) != NATS_OK) {
                return false;
            }
            values += dataOf(Message(received)) + "\n";
        }
        return true;
    }

    const TempFolder& m_folder;
    const std::size_t m_size;
    const std::vector<int> m_ports;
    std::vector<std::unique_ptr<Process>> m_servers;
};

// Stands for a stream, on a server that has none: answers what it has an answer for.
class ScriptedStream {
public:
    explicit ScriptedStream(const TempFolder& folder)
        : m_server({"nats-server", "-a", "127.0.0.1", "-p", m_port}, folder / "plain.log") {
        EXPECT_TRUE(waitUntil([this] {
            m_connection = connectTo(settings().urls);
            return m_connection != nullptr;
        }));
        for (const char* about : {subject, "$JS.API.STREAM.NAMES"}) {
            natsSubscription* made = nullptr;
            natsConnection_Subscribe(&made, m_connection.get(), about, onMessage, this);
            m_subscriptions.emplace_back(made);
        }
        came();
    }

    NatsSettings settings() const {
        return {"nats://127.0.0.1:" + m_port, subject, "", "", "", ""};
    }
    // The answer to a record's line, or to the question for names of streams.
    void answerTo(const std::string& text, const std::string& answer) {
        const CheckedLock lock(m_mutex);
        m_answers[text] = answer;
    }
    // What came, what was on its way included.
    std::string came() {
        for (int i = 0; i < 20; ++i) {
            natsConnection_Flush(m_connection.get());
        }
        const CheckedLock lock(m_mutex);
        return m_came;
    }

private:
    static void onMessage(natsConnection* connection, natsSubscription* /*subscription*/,
                          natsMsg* received, void* self) {
        const Message message(received);
        auto& stream = *static_cast<ScriptedStream*>(self);
        const CheckedLock lock(stream.m_mutex);
        stream.m_came += dataOf(message) + " ";
        const auto answer = stream.m_answers.find(dataOf(message));
        if (answer != stream.m_answers.end()) {
            natsConnection_PublishString(connection, natsMsg_GetReply(received),
                                         answer->second.c_str());
        }
    }

    const std::string m_port = std::to_string(freePorts(1)[0]);
    const Process m_server;
    CheckedMutex m_mutex;
    std::string m_came ANALYTICS_GUARDED_BY(m_mutex);
    std::map<std::string, std::string> m_answers ANALYTICS_GUARDED_BY(m_mutex);
    Connection m_connection;
    std::vector<Subscription> m_subscriptions;
};

class NatsSinkTest : public testing::Test {
protected:
    // Once each, so many, in order.
    static void expectStored(u64 count, NatsCluster& from) {
        const std::string values = from.values();
        EXPECT_EQ(std::count(values.begin(), values.end(), '\n'), count);
        EXPECT_EQ(lastInOrder(values), count);
    }

    RecordingLog log;
    const TempFolder folder;
    NatsCluster cluster{folder};
};

} // namespace

TEST_F(NatsSinkTest, EveryRecordIsStoredOnceWhenTheLeaderIsKilled) {
    NatsCluster three(folder, 3);
    three.start();
    const u64 half = recordsOfARun() / 2;
    Sending sending(makeNatsSink(three.settings()));
    sending.push(half);
    ASSERT_TRUE(waitUntil([&] { return sending.delivered() > half / 4; }));
    three.kill(three.leader());
    sending.push(half);
    expectStored(sending.endWithAllDelivered(), three);
}

TEST_F(NatsSinkTest, AKillAtAnyMomentLosesNothingThatWasAccepted) {
    cluster.start();
    killAtRandomMoments("--nats " + cluster.urls() + " --subject " + subject,
                        [&] { return cluster.values(); });
}

TEST_F(NatsSinkTest, AServerThatIsAwayIsWaitedFor) {
    Sending sending(makeNatsSink(cluster.settings()));
    for (int outage = 1; outage <= 2; ++outage) {
        sending.push(100);
        // A connection that was never made has a reason.
        ASSERT_TRUE(log.waitFor(outage == 1 ? "NATS takes no records: (" : "takes no records"));
        EXPECT_EQ(sending.delivered(), sending.pushed() - 100);
        cluster.start();
        ASSERT_TRUE(sending.waitForDelivered());
        expectStored(sending.pushed(), cluster);
        cluster.kill(0);
        log.clear();
    }
    sending.push(100);
    EXPECT_EQ(sending.end(std::chrono::seconds(1)).waiting, 101U) << "it ends in time";
}

// What is not acknowledged is published again under the same id.
TEST_F(NatsSinkTest, ARepeatWithinTheWindowIsStoredOnce) {
    cluster.start();
    const Record record = makeRecord(7);
    RecordingAnswers answers;
    const auto sink = makeNatsSink(cluster.settings());
    sink->start(answers);
    for (int i = 0; i < 2; ++i) {
        sink->send({&record});
        EXPECT_EQ(answers.take(1), "7 delivered");
        sink->purge();
    }
    EXPECT_EQ(cluster.values(), "{}\n");
}

TEST_F(NatsSinkTest, OnlyARecordThatIsTooLargeFailsAndWhatAFullStreamDoesNotTakeWaits) {
    cluster.start({{"max_msg_size", 10'000}, {"max_bytes", 20'000}});
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(10);
    sending.push(1, 15'000);  // for the stream
    sending.push(1, 200'000); // for the server
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records: maximum bytes exceeded"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_EQ(account.failures,
              (std::map<std::string, u64>{{"larger than the server takes", 1},
                                          {"message size exceeds maximum allowed", 1}}));
    const std::vector<u64> stored = sequencesByBoot(cluster.values()).begin()->second;
    EXPECT_EQ(account.delivered, stored.size());
    EXPECT_EQ(account.delivered, stored.back() - 2) << "in order";
    EXPECT_EQ(account.delivered + account.waiting, 111U) << account.text();
}

TEST_F(NatsSinkTest, NothingIsPublishedBehindARecordThatIsNotAcknowledged) {
    ScriptedStream stream(folder);
    stream.answerTo(streamQuestion, R"({"total":1})");
    const auto sink = makeNatsSink(stream.settings());
    RecordingAnswers answers;
    sink->start(answers);
    const auto send = [&](u64 ticket) {
        const Record record = makeRecord(ticket, "boot", "#" + std::to_string(ticket) + "\n");
        sink->send({&record});
    };
    send(1);
    send(2);
    EXPECT_TRUE(waitUntil([&] { return holds(stream.came(), "#1 "); })) << "it goes alone";
    sink->purge();
    EXPECT_EQ(answers.take(2), "1 try again: given up, 2 try again: given up");
    // An answer of any form.
    u64 ticket = 3;
    for (const auto& [text, answer] :
         {std::pair(R"({"stream":"s"})", "delivered"),
          {R"({"error":{"err_code":10054,"description":"large"}})", "failed: large"},
          {R"({"error":{"err_code":10077}})", "try again: an error without a name"},
          {"{}", "try again: an answer in an unknown form"}}) {
        stream.answerTo("#" + std::to_string(ticket), text);
        send(ticket);
        EXPECT_EQ(answers.take(1), std::to_string(ticket) + " " + answer);
        if (ticket == 5) { // it is refused: nothing follows
            send(7);
            stream.came();
            sink->purge();
            EXPECT_EQ(answers.take(1), "7 try again: given up");
        }
        ++ticket;
    }
    EXPECT_EQ(stream.came(), streamQuestion + " #1 #3 #4 #5 #6 ");
}

TEST_F(NatsSinkTest, AWrongConfigurationIsSaidByName) {
    cluster.start();
    const std::string urls = cluster.urls();
    const std::string refused = "NATS: " + cluster.urls("") + ": ";
    const std::string file = "/proc/self/exe";
    const std::string none = "/no/such/file";
    const std::string one = "NATS: a certificate and its key go together";
    for (const auto& [settings, words] : std::vector<std::pair<NatsSettings, std::string>>{
             {cluster.settings(""), refused},
             {cluster.settings("user:fal@se@"), refused},
             {{urls, "raports", "", "", "", ""}, "NATS: no stream takes the subject raports"},
             {{urls, subject, none, "", "", ""}, "NATS: cannot read " + none},
             {{urls, subject, "", none, "", ""}, "NATS: cannot read " + none},
             {{urls, subject, "", "", file, ""}, one},
             {{urls, subject, "", "", "", file}, one},
             {{urls, subject, "", "", file, file}, "NATS: " + file + " and " + file + ": "}}) {
        EXPECT_TRUE(holds(messageOf([&, given = settings] { makeNatsSink(given); }), words));
    }
}

TEST_F(NatsSinkTest, WhateverAServerSaysOfStreamsIsUnderstood) {
    ScriptedStream stream(folder);
    const std::string doubt =
        "no error NATS: no server says whether a stream takes reports.storage: ";
    for (const auto& [answer, words] :
         {std::pair("not JSON", doubt + "an answer in an unknown form"),
          {"[]", doubt + "an answer in an unknown form"},
          {R"({"total":"1"})", doubt + "an answer in an unknown form"},
          {R"({"error":{"code":503,"description":"off"}})", doubt + "off"},
          {R"({"error":{"code":400,"description":"bad"}})",
           "NATS: no stream takes reports.storage: bad"}}) {
        stream.answerTo(streamQuestion, answer);
        log.clear();
        std::string said = messageOf([&] { makeNatsSink(stream.settings()); });
        for (const std::string& warning : log.texts(WarnLevel)) {
            said += " " + warning;
        }
        EXPECT_TRUE(holds(said, words));
    }
}
