#include "host/forwarding/NatsSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingAnswers.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Examples.h"
#include "tests/support/Files.h"
#include "tests/support/Forwarding.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <nats/nats.h>

#include <array>

namespace {

using nlohmann::json;

constexpr const char* subject = "reports.storage";

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

// Servers on the loopback interface, each in a folder of its own, and a stream that each of them
// holds.
class NatsCluster {
public:
    explicit NatsCluster(const TempFolder& folder, std::size_t size = 1, std::string users = "")
        : m_folder(folder),
          m_size(size),
          m_users(std::move(users)),
          m_ports(freePorts(2 * size)),
          m_servers(size) {}

    // All servers, and the stream once they agree on it. `limits` are the stream's.
    void start(const json& limits = json::object()) {
        for (std::size_t i = 0; i < m_size; ++i) {
            start(i);
        }
        json stream = {{"name", "reports"}, {"subjects", {subject}}, {"num_replicas", m_size},
                       {"discard", "new"},  {"retention", "limits"}, {"storage", "file"}};
        stream.update(limits);
        ask("STREAM.CREATE.reports", stream.dump());
    }
    void start(std::size_t server) {
        const std::string number = std::to_string(server);
        m_servers[server] = std::make_unique<Process>(
            std::vector<std::string>{"nats-server", "-c",
                                     m_folder.write(number + ".conf", configuration(server))},
            m_folder / (number + ".log"));
    }
    void kill(std::size_t server) { m_servers[server].reset(); }

    std::string urls(const std::string& user = "") const {
        return joined("nats://" + user, 0, ",");
    }
    NatsSettings settings(const std::string& user = "") const {
        NatsSettings settings;
        settings.urls = urls(user);
        settings.subject = subject;
        return settings;
    }
    // The server that leads the stream.
    std::size_t leader() {
        const std::string name = ask("STREAM.INFO.reports", "")["cluster"].value("leader", "n0");
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
    // "BEGIN127.0.0.1:4222,BEGIN127.0.0.1:4223" of the ports from `first` on.
    std::string joined(const std::string& begin, std::size_t first, const char* separator) const {
        std::string text;
        for (std::size_t i = first; i < first + m_size; ++i) {
            text += (text.empty() ? "" : separator) + begin + at(i);
        }
        return text;
    }
    std::string at(std::size_t port) const { return "127.0.0.1:" + std::to_string(m_ports[port]); }

    std::string configuration(std::size_t server) const {
        const std::string routes = joined("\"nats://", m_size, "\", ") + "\"";
        return "server_name: n" + std::to_string(server) + "\nlisten: \"" + at(server) +
               "\"\nmax_payload: 100000\njetstream { store_dir: \"" +
               (m_folder / (std::to_string(server) + ".store")) + "\" }\n" + m_users +
               (m_size == 1 ? ""
                            : "cluster { name: c, listen: \"" + at(m_size + server) +
                                  "\", routes: [" + routes + "] }\n");
    }

    // What the servers answer, once they do without an error.
    json ask(const std::string& question, const std::string& details) {
        json answer;
        EXPECT_TRUE(waitUntil([&] {
            natsMsg* received = nullptr;
            const Connection connection = connectTo(urls(m_users.empty() ? "" : "user:word@"));
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
        u64 count = ask("STREAM.INFO.reports", "")["state"]["messages"];
        const Connection connection = connectTo(urls());
        jsCtx* context = nullptr;
        natsConnection_JetStream(&context, connection.get(), nullptr);
        const Context owned(context);
        natsSubscription* made = nullptr;
        jsSubOptions options;
        jsSubOptions_Init(&options);
        options.Ordered = true;
        js_SubscribeSync(&made, context, subject, nullptr, &options, nullptr);
        const Subscription subscription(made);
        natsMsg* received = nullptr;
        for (; count > 0 && natsSubscription_NextMsg(&received, made, 3'000) == NATS_OK; --count) {
            values += dataOf(Message(received)) + "\n";
        }
        return count == 0;
    }

    const TempFolder& m_folder;
    const std::size_t m_size;
    const std::string m_users;
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
        for (const auto& [about, subscription] :
             {std::pair(subject, &m_records), {"$JS.API.STREAM.NAMES", &m_questions}}) {
            natsSubscription* made = nullptr;
            natsConnection_Subscribe(&made, m_connection.get(), about, onMessage, this);
            subscription->reset(made);
        }
        roundTrip();
    }

    NatsSettings settings() const {
        return {"nats://127.0.0.1:" + m_port, subject, "", "", "", ""};
    }
    // The answer to a record's line, or to the question for names of streams.
    void answerTo(const std::string& text, const std::string& answer) {
        const CheckedLock lock(m_mutex);
        m_answers[text] = answer;
    }
    // What came, once `last` has and all else that was on its way.
    std::string came(const std::string& last) {
        EXPECT_TRUE(waitUntil([&] {
            const CheckedLock lock(m_mutex);
            return holds(m_came, last);
        }));
        roundTrip();
        const CheckedLock lock(m_mutex);
        return m_came;
    }
    void roundTrip() {
        for (int i = 0; i < 20; ++i) {
            natsConnection_Flush(m_connection.get());
        }
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
    Subscription m_records, m_questions;
};

class NatsSinkTest : public testing::Test {
protected:
    static void expectAllStoredOnce(Sending& sending, NatsCluster& from) {
        const u64 count = sending.endWithAllDelivered();
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
    expectAllStoredOnce(sending, three);
}

TEST_F(NatsSinkTest, AKillAtAnyMomentLosesNothingThatWasAccepted) {
    cluster.start();
    killAtRandomMoments("--nats " + cluster.urls() + " --subject " + subject,
                        [&] { return cluster.values(); });
}

TEST_F(NatsSinkTest, AServerThatIsAwayIsWaitedFor) {
    Sending early(makeNatsSink(cluster.settings()));
    early.push(100);
    EXPECT_TRUE(log.waitFor("NATS takes no records: ("));
    EXPECT_EQ(early.end(std::chrono::seconds(1)).waiting, 101U) << "it ends in time";
    cluster.start();
    cluster.kill(0);
    log.clear();
    Sending sending(makeNatsSink(cluster.settings()));
    for (int outage = 1; outage <= 2; ++outage) {
        sending.push(100);
        ASSERT_TRUE(log.waitFor("NATS takes no records"));
        EXPECT_EQ(sending.delivered(), sending.pushed() - 100);
        cluster.start(0);
        ASSERT_TRUE(sending.waitForDelivered());
        cluster.kill(0);
        log.clear();
    }
    cluster.start(0);
    expectAllStoredOnce(sending, cluster);
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

TEST_F(NatsSinkTest, OnlyTheRecordThatIsTooLargeFails) {
    cluster.start({{"max_msg_size", 10'000}});
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(10);
    sending.push(1, 20'000);  // for the stream
    sending.push(1, 200'000); // for the server
    sending.push(10);
    const AccountNumbers account = sending.end();
    EXPECT_EQ(account.failures,
              (std::map<std::string, u64>{{"larger than the server takes", 1},
                                          {"message size exceeds maximum allowed", 1}}));
    EXPECT_EQ(account.delivered, 21U) << account.text();
}

TEST_F(NatsSinkTest, WhatAFullStreamDoesNotTakeWaits) {
    cluster.start({{"max_bytes", 20'000}});
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records: maximum bytes exceeded"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_EQ(account.delivered, lastInOrder(cluster.values()));
    EXPECT_EQ(account.delivered + account.waiting, 101U) << account.text();
}

TEST_F(NatsSinkTest, NothingIsPublishedBehindARecordThatIsNotAcknowledged) {
    ScriptedStream stream(folder);
    stream.answerTo(R"({"subject":"reports.storage"})", R"({"total":1})");
    const auto sink = makeNatsSink(stream.settings());
    RecordingAnswers answers;
    sink->start(answers);
    std::vector<Record> records;
    for (u64 ticket = 0; ticket <= 7; ++ticket) {
        records.push_back(makeRecord(ticket, "boot", "#" + std::to_string(ticket) + "\n"));
    }
    sink->send({&records[1], &records[2]});
    EXPECT_TRUE(holds(stream.came("#1"), "#1 ")) << "it goes alone";
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
        sink->send({&records[ticket]});
        EXPECT_EQ(answers.take(1), std::to_string(ticket) + " " + answer);
        if (ticket == 5) { // it is refused: nothing follows
            sink->send({&records[7]});
            stream.roundTrip();
            sink->purge();
            EXPECT_EQ(answers.take(1), "7 try again: given up");
        }
        ++ticket;
    }
    EXPECT_EQ(stream.came("#6").substr(std::string(R"({"subject":"reports.storage"} )").size()),
              "#1 #3 #4 #5 #6 ");
}

TEST_F(NatsSinkTest, AWrongConfigurationIsSaidByName) {
    NatsCluster guarded(folder, 1, "authorization { user: user, password: word }\n");
    guarded.start();
    const std::string server = guarded.urls().substr(std::string("nats://").size());
    const auto refusal = [&](const std::string& user, const std::string& about = subject) {
        NatsSettings settings = guarded.settings(user);
        settings.subject = about;
        return messageOf([&] { makeNatsSink(settings); });
    };
    EXPECT_TRUE(holds(refusal(""), server));
    EXPECT_TRUE(holds(refusal("user:fal@se@"), "NATS: nats://" + server));
    EXPECT_EQ(refusal("user:word@"), "no error");
    EXPECT_EQ(refusal("user:word@", "raports"), "NATS: no stream takes the subject raports");
}

TEST_F(NatsSinkTest, WhateverAServerSaysOfStreamsIsUnderstood) {
    ScriptedStream stream(folder);
    for (const auto& [answer, error, warning] :
         {std::tuple("not JSON", "no error", ": an answer in an unknown form"),
          {"[]", "no error", ": an answer in an unknown form"},
          {R"({"total":"1"})", "no error", ": an answer in an unknown form"},
          {R"({"error":{"code":503,"description":"off"}})", "no error", ": off"},
          {R"({"error":{"code":400,"description":"bad"}})",
           "NATS: no stream takes reports.storage: bad", ""}}) {
        stream.answerTo(R"({"subject":"reports.storage"})", answer);
        log.clear();
        EXPECT_EQ(messageOf([&] { makeNatsSink(stream.settings()); }), error);
        const auto warnings = log.texts(WarnLevel);
        EXPECT_TRUE(holds(warnings.empty() ? "" : warnings[0], warning));
    }
}

TEST(NatsSettingsTest, AFileThatIsNoneIsSaidByName) {
    const std::string file = "/proc/self/exe";
    const std::string none = "/no/such/file";
    const std::string one = "a certificate and its key go together";
    for (const auto& [credentials, ca, certificate, key, words] :
         std::vector<std::array<std::string, 5>>{
             {none, "", "", "", "cannot read " + none},
             {"", none, "", "", "cannot read " + none},
             {"", "", file, "", one},
             {"", "", "", file, one},
             {"", "", file, file, file + " and " + file + ": "}}) {
        const NatsSettings settings{"nats://127.0.0.1:1", subject, credentials, ca,
                                    certificate,          key};
        EXPECT_TRUE(holds(messageOf([&] { makeNatsSink(settings); }), "NATS: " + words));
    }
}
