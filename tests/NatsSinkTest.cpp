#include "host/forwarding/NatsSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingAnswers.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Files.h"
#include "tests/support/Forwarding.h"
#include "tests/support/Kills.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <nats/nats.h>
#include <sys/mount.h>

#include <array>

namespace {

using nlohmann::json;

constexpr const char* subject = "reports.storage";

using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;
using Context = std::unique_ptr<jsCtx, Destroy<jsCtx_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;

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
    NatsSettings settings() const {
        NatsSettings settings;
        settings.urls = urls();
        settings.subject = subject;
        return settings;
    }
    std::string storage(std::size_t server) const {
        return m_folder / (std::to_string(server) + ".store");
    }

    // The server that leads the stream.
    std::size_t leader() {
        const std::string name = ask("STREAM.INFO.reports", "")["cluster"].value("leader", "n0");
        return static_cast<std::size_t>(name[1] - '0');
    }

    // What the stream holds, oldest first.
    std::vector<std::string> values() {
        std::vector<std::string> values;
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
               "\"\nmax_payload: 100000\njetstream { store_dir: \"" + storage(server) + "\" }\n" +
               m_users +
               (m_size == 1 ? ""
                            : "cluster { name: c, listen: \"" + at(m_size + server) +
                                  "\", routes: [" + routes + "] }\n");
    }

    Connection connect() const {
        natsConnection* made = nullptr;
        natsConnection_ConnectTo(&made, urls(m_users.empty() ? "" : "user:word@").c_str());
        return Connection(made);
    }

    // What the servers answer, once they do without an error.
    json ask(const std::string& question, const std::string& details) {
        json answer;
        EXPECT_TRUE(waitUntil([&] {
            natsMsg* received = nullptr;
            const Connection connection = connect();
            natsConnection_RequestString(&received, connection.get(),
                                         ("$JS.API." + question).c_str(), details.c_str(), 3'000);
            const Message message(received);
            answer = message == nullptr ? json() : json::parse(dataOf(message));
            return message != nullptr && !answer.contains("error");
        })) << question
            << answer;
        return answer;
    }

    bool read(std::vector<std::string>& values) {
        values.clear();
        const u64 count = ask("STREAM.INFO.reports", "")["state"]["messages"];
        const Connection connection = connect();
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
        while (values.size() < count &&
               natsSubscription_NextMsg(&received, made, 3'000) == NATS_OK) {
            values.push_back(dataOf(Message(received)));
        }
        return values.size() == count;
    }

    const TempFolder& m_folder;
    const std::size_t m_size;
    const std::string m_users;
    const std::vector<int> m_ports;
    std::vector<std::unique_ptr<Process>> m_servers;
};

void expectAllStoredOnce(Sending& sending, NatsCluster& cluster) {
    const u64 count = sending.pushed() + 1;
    sending.endWithAllDelivered();
    const std::vector<std::string> values = cluster.values();
    EXPECT_EQ(values.size(), count);
    expectAllInOrder(values, count);
}

class NatsSinkTest : public testing::Test {
protected:
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
    cluster.start();
    cluster.kill(0);
    Sending sending(makeNatsSink(cluster.settings()));
    for (const u64 deliveredBefore : {0U, 100U}) {
        sending.push(100);
        ASSERT_TRUE(log.waitFor("NATS takes no records"));
        EXPECT_EQ(sending.delivered(), deliveredBefore);
        cluster.start(0);
        ASSERT_TRUE(waitUntil([&] { return sending.delivered() == deliveredBefore + 100; }));
        cluster.kill(0);
        log.clear();
    }
    cluster.start(0);
    expectAllStoredOnce(sending, cluster);
}

TEST_F(NatsSinkTest, WithoutAServerTheEndComesInTimeWithEverythingWaiting) {
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    const AccountNumbers account = sending.end(std::chrono::seconds(1));
    EXPECT_EQ(account.waiting, 101U) << account.text();
}

// What is not acknowledged is published again under the same id.
TEST_F(NatsSinkTest, ARepeatWithinTheWindowIsStoredOnce) {
    cluster.start();
    Record record;
    record.ticket = 7;
    record.sequence = 3;
    record.origin = std::make_shared<Origin>(Origin{"host", "boot"});
    record.line = "{\"sequence\":3}\n";

    RecordingAnswers answers;
    const auto sink = makeNatsSink(cluster.settings());
    sink->start(answers);
    for (int i = 0; i < 2; ++i) {
        sink->send({&record});
        EXPECT_EQ(answers.take(1), "7 delivered");
        sink->purge();
    }
    EXPECT_EQ(cluster.values(), std::vector<std::string>{"{\"sequence\":3}"});
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
    EXPECT_EQ(cluster.values().size(), 21U);
}

TEST_F(NatsSinkTest, WhatAFullStreamDoesNotTakeWaits) {
    cluster.start({{"max_bytes", 20'000}});
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records: maximum bytes exceeded"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_EQ(account.delivered, cluster.values().size());
    EXPECT_EQ(account.delivered + account.waiting, 101U) << account.text();
    expectAllInOrder(cluster.values(), account.delivered);
}

TEST_F(NatsSinkTest, WhatAFullDiskDoesNotTakeWaits) {
    std::filesystem::create_directories(cluster.storage(0));
    if (mount("none", cluster.storage(0).c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "no file system of a size to be had";
    }
    cluster.start();
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(200, 10'000);
    EXPECT_TRUE(log.waitFor("NATS takes no records"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_GT(account.delivered, 0U);
    EXPECT_GT(account.waiting, 100U) << account.text();
    EXPECT_EQ(account.failed, 0U);
    cluster.kill(0);
    EXPECT_EQ(umount2(cluster.storage(0).c_str(), MNT_DETACH), 0);
}

TEST_F(NatsSinkTest, AWrongConfigurationIsSaidByName) {
    NatsCluster guarded(folder, 1, "authorization { user: user, password: word }\n");
    guarded.start();
    const std::string server = guarded.urls().substr(std::string("nats://").size());
    const auto refusal = [&](const std::string& user, const std::string& about) {
        NatsSettings settings;
        settings.urls = guarded.urls(user);
        settings.subject = about;
        return messageOf([&] { makeNatsSink(settings); });
    };
    EXPECT_TRUE(holds(refusal("", subject), server));
    EXPECT_TRUE(holds(refusal("user:false@", subject), server));
    EXPECT_FALSE(holds(refusal("user:false@", subject), "false"));
    EXPECT_EQ(refusal("user:word@", subject), "no error");
    EXPECT_EQ(refusal("user:word@", "raports"), "NATS: no stream takes the subject raports");
}

TEST_F(NatsSinkTest, AFileThatIsNoneIsSaidByName) {
    const std::string file = "/proc/self/exe";
    const std::string none = "/no/such/file";
    for (const auto& [credentials, ca, certificate, key, words] :
         std::vector<std::array<std::string, 5>>{
             {none, "", "", "", "cannot read " + none},
             {"", none, "", "", "cannot read " + none},
             {"", "", file, "", "a certificate and its key go together"},
             {"", "", "", file, "a certificate and its key go together"},
             {"", "", file, file, file + " and " + file + ": "}}) {
        NatsSettings settings;
        settings.urls = "nats://127.0.0.1:1";
        settings.credentials = credentials;
        settings.tlsCa = ca;
        settings.tlsCert = certificate;
        settings.tlsKey = key;
        EXPECT_TRUE(holds(messageOf([&] { makeNatsSink(settings); }), "NATS: " + words));
    }
}
