#include "host/forwarding/NatsSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingAnswers.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Forwarding.h"

#include <arpa/inet.h>
#include <nats/nats.h>

namespace {

using nlohmann::json;

using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;

constexpr const char* subject = "reports.storage";
constexpr int firstPort = 14'222;
// An address of the loopback interface that no other test's process has.
const std::string ownHost = inet_ntoa({htonl(INADDR_LOOPBACK + static_cast<u32>(getpid()))});

// Once one of the servers is there.
Connection connectTo(const std::string& urls) {
    natsConnection* got = nullptr;
    EXPECT_TRUE(waitUntil([&] { return natsConnection_ConnectTo(&got, urls.c_str()) == NATS_OK; }));
    return Connection(got);
}

// Empty if there is no message.
std::string takeText(natsMsg* received) {
    const std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>> owned(received);
    const int size = received == nullptr ? 0 : natsMsg_GetDataLength(received);
    return {natsMsg_GetData(received), static_cast<std::size_t>(size)};
}

// Servers that let one user in, and a stream that each of them holds.
class NatsCluster {
public:
    explicit NatsCluster(const TempFolder& folder, int size = 1) : m_folder(folder), m_size(size) {}

    // All servers, and the stream once they agree on it. `limits` are the stream's.
    void start(const json& limits = json::object()) {
        for (int i = 0; i < m_size; ++i) {
            const std::string name = "n" + std::to_string(i);
            std::string command = "nats-server --user user --pass word --js --name " + name +
                                  " --store_dir " + m_folder / name + " --addr " + ownHost +
                                  " --port " + std::to_string(firstPort + i);
            if (m_size > 1) {
                command += " --cluster_name c --cluster " + url(m_size + i) + " --routes " +
                           urls("", m_size);
            }
            m_servers[name] = std::make_unique<Process>(command, m_folder / (name + ".log"));
        }
        json stream = {{"name", "reports"}, {"subjects", {subject}}, {"num_replicas", m_size}};
        stream.update({{"discard", "new"}, {"allow_direct", true}});
        stream.update(limits);
        ask("STREAM.CREATE.reports", stream.dump());
    }
    void kill(const std::string& server) { m_servers[server].reset(); }

    static std::string url(int server, const std::string& user = "") {
        return "nats://" + user + ownHost + ":" + std::to_string(firstPort + server);
    }
    std::string urls(const std::string& user = "user:word@", int first = 0) const {
        std::string text = url(first, user);
        for (int i = first + 1; i < first + m_size; ++i) {
            text += "," + url(i, user);
        }
        return text;
    }
    NatsSettings settings(const std::string& user = "user:word@") const {
        return {urls(user), subject, "", "", "", ""};
    }
    // The server that leads the stream.
    std::string leader() { return json::parse(ask("STREAM.INFO.reports"))["cluster"]["leader"]; }

    // What the stream has come to hold, oldest first, one a line.
    const std::string& values() {
        const u64 count = json::parse(ask("STREAM.INFO.reports"))["state"]["messages"];
        while (m_read < count) {
            m_values += ask("DIRECT.GET.reports", json({{"seq", ++m_read}}).dump()) + "\n";
        }
        return m_values;
    }

private:
    // What the servers answer, once they do without an error.
    std::string ask(const std::string& question, const std::string& details = "") {
        std::string answer;
        EXPECT_TRUE(waitUntil([&] {
            if (natsConnection_Status(m_connection.get()) != NATS_CONN_STATUS_CONNECTED) {
                m_connection = connectTo(urls()); // its server was killed
            }
            natsMsg* received = nullptr;
            natsConnection_RequestString(&received, m_connection.get(),
                                         ("$JS.API." + question).c_str(), details.c_str(), 3'000);
            answer = takeText(received);
            return !answer.empty() && !holds(answer, R"("error":)");
        })) << question + ": " + answer;
        return answer;
    }

    const TempFolder& m_folder;
    const int m_size;
    std::map<std::string, std::unique_ptr<Process>> m_servers;
    Connection m_connection;
    u64 m_read = 0;
    std::string m_values;
};

// Stands for a stream, on a server that has none. Its subject is one of the API's, so that one
// subscription hears of records and questions.
class ScriptedStream {
public:
    explicit ScriptedStream(const TempFolder& folder)
        : m_server("nats-server --addr " + ownHost + " --port " + std::to_string(firstPort),
                   folder / "log"),
          m_connection(connectTo(m_settings.urls)) {
        natsSubscription* made = nullptr;
        natsConnection_SubscribeSync(&made, m_connection.get(), "$JS.API.>");
        natsConnection_Flush(m_connection.get());
        m_messages.reset(made);
    }

    // Has a sink made, and answers its question for streams. Returns why there is none.
    std::string make(std::unique_ptr<ISink>& sink, const char* answer) {
        auto error = std::async(std::launch::async, [&] {
            return messageOf([&] { sink = makeNatsSink(m_settings); });
        });
        EXPECT_EQ(next(answer), R"({"subject":"$JS.API.records"})");
        return error.get();
    }
    // The next message, which gets the answer; empty if none comes.
    std::string next(const char* answer = nullptr, s64 limitMs = 5'000) {
        natsMsg* received = nullptr;
        natsSubscription_NextMsg(&received, m_messages.get(), limitMs);
        if (received != nullptr && answer != nullptr) {
            natsConnection_PublishString(m_connection.get(), natsMsg_GetReply(received), answer);
        }
        return takeText(received);
    }

private:
    const NatsSettings m_settings{NatsCluster::url(0), "$JS.API.records", "", "", "", ""};
    const Process m_server;
    const Connection m_connection;
    std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>> m_messages;
};

class NatsSinkTest : public testing::Test {
protected:
    RecordingLog log;
    const TempFolder folder;
    NatsCluster cluster{folder};
    RecordingAnswers answers;
    std::unique_ptr<ISink> sink;
};

} // namespace

TEST_F(NatsSinkTest, EveryRecordIsStoredOnceWhenTheLeaderIsKilled) {
    NatsCluster three(folder, 3);
    three.start();
    const u64 half = recordsOfARun / 2;
    Sending sending(makeNatsSink(three.settings()));
    sending.push(half);
    ASSERT_TRUE(waitUntil([&] { return sending.delivered() > half / 4; }));
    three.kill(three.leader());
    sending.push(half);
    const u64 count = sending.end().delivered;
    EXPECT_EQ(count, sending.pushed());
    const std::string& values = three.values();
    EXPECT_EQ(std::count(values.begin(), values.end(), '\n'), count);
    EXPECT_EQ(lastInOrder(values), count);
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
        cluster.start();
        ASSERT_TRUE(waitUntil([&] { return sending.delivered() == sending.pushed(); }));
        EXPECT_EQ(lastInOrder(cluster.values()), sending.pushed());
        cluster.kill("n0");
        log.clear();
    }
    sending.push(100);
    EXPECT_EQ(sending.end(std::chrono::seconds(1)).waiting, 101U) << "it ends in time";
}

// What is not acknowledged is published again under the same id.
TEST_F(NatsSinkTest, ARepeatWithinTheWindowIsStoredOnce) {
    cluster.start();
    const Record record = makeRecord(7), other = makeRecord(7, "another boot");
    sink = makeNatsSink(cluster.settings());
    sink->start(answers);
    for (const Record* each : {&record, &record, &other}) {
        sink->send({each});
        EXPECT_EQ(answers.take(1), "7 delivered");
    }
    EXPECT_EQ(cluster.values(), "{}\n{}\n");
}

TEST_F(NatsSinkTest, OnlyARecordThatIsTooLargeFailsAndWhatAFullStreamDoesNotTakeWaits) {
    cluster.start({{"max_msg_size", 10'000}, {"max_bytes", 20'000}});
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(10);
    sending.push(1, 15'000);    // for the stream
    sending.push(1, 2'000'000); // for the server
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records: maximum bytes exceeded"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_EQ(account.failures,
              (std::map<std::string, u64>{{"larger than the server takes", 1},
                                          {"message size exceeds maximum allowed", 1}}));
    const std::vector<u64> stored = sequencesByBoot(cluster.values()).begin()->second;
    EXPECT_EQ(account.delivered, stored.size());
    EXPECT_EQ(account.delivered, stored.back() - 2) << "in order";
}

TEST_F(NatsSinkTest, NothingIsPublishedBehindARecordThatIsNotAcknowledged) {
    ScriptedStream stream(folder);
    ASSERT_EQ(stream.make(sink, R"({"total":1})"), "no error");
    sink->start(answers);
    const auto send = [&](u64 ticket) {
        const Record record = makeRecord(ticket, "boot", "#" + std::to_string(ticket) + "\n");
        sink->send({&record});
    };
    send(1);
    send(2);
    EXPECT_EQ(stream.next(), "#1");
    EXPECT_EQ(stream.next(nullptr, 200), "") << "it goes alone";
    sink->purge();
    EXPECT_EQ(answers.take(2), "1 try again: given up, 2 try again: given up");
    // An answer of any form.
    for (const auto& [ticket, text, answer] :
         {std::tuple(3, R"({"stream":"s"})", "3 delivered"),
          {4, R"({"error":{"err_code":10054,"description":"large"}})", "4 failed: large"},
          {5, R"({"error":{"err_code":10077}})", "5 try again: an error without a name"},
          {6, "{}", "6 try again: an answer in an unknown form"}}) {
        send(ticket);
        EXPECT_EQ(stream.next(text), "#" + std::to_string(ticket));
        EXPECT_EQ(answers.take(1), answer);
        if (ticket >= 5) { // it is refused: nothing follows
            send(7);
            EXPECT_EQ(stream.next(nullptr, 200), "");
            sink->purge();
            EXPECT_EQ(answers.take(1), "7 try again: given up");
        }
    }
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
    const std::string doubt = "NATS: no server says whether a stream takes $JS.API.records: ";
    for (const auto& [answer, error, warning] :
         {std::tuple("not JSON", "no error", doubt + "an answer in an unknown form\n"),
          {"[]", "no error", doubt + "an answer in an unknown form\n"},
          {R"({"total":"1"})", "no error", doubt + "an answer in an unknown form\n"},
          {R"({"error":{"code":503,"description":"off"}})", "no error", doubt + "off\n"},
          {R"({"error":{"code":503}})", "no error", doubt + "an error without a name\n"},
          {R"({"error":{"code":400,"description":"bad"}})",
           "NATS: no stream takes $JS.API.records: bad", ""}}) {
        log.clear();
        EXPECT_EQ(stream.make(sink, answer), error);
        const std::vector<std::string> warnings = log.texts(WarnLevel);
        EXPECT_EQ(std::accumulate(warnings.begin(), warnings.end(), std::string()), warning);
    }
}
