#include "host/forwarding/NatsSink.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Forwarding.h"
#include "tests/support/Kills.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <nats/nats.h>
#include <sys/mount.h>

#include <array>
#include <filesystem>
#include <fstream>

namespace {

constexpr const char* subject = "reports.storage";

// Servers on the loopback interface, each in a folder of its own, and a stream that each of them
// holds.
class NatsCluster {
public:
    explicit NatsCluster(std::size_t size, std::string users = "")
        : m_size(size), m_users(std::move(users)), m_ports(freePorts(2 * size)) {
        std::filesystem::create_directories(m_folder);
        m_servers.resize(size);
    }
    ~NatsCluster() {
        disconnect();
        m_servers.clear();
        std::filesystem::remove_all(m_folder);
    }
    NatsCluster(const NatsCluster&) = delete;
    NatsCluster& operator=(const NatsCluster&) = delete;

    // All servers, and the stream once they agree on it.
    void start() {
        for (std::size_t i = 0; i < m_size; ++i) {
            start(i);
        }
        expectTrue(waitUntil([&] { return addStream(); }), "no stream");
    }
    void start(std::size_t server) {
        const std::string path = m_folder + "/" + std::to_string(server);
        std::ofstream(path + ".conf") << configuration(server);
        m_servers[server] = std::make_unique<Process>(
            std::vector<std::string>{"nats-server", "-c", path + ".conf"}, path + ".log");
    }
    void kill(std::size_t server) { m_servers[server].reset(); }

    std::string urls() const {
        std::string urls;
        for (std::size_t i = 0; i < m_size; ++i) {
            urls +=
                (i == 0 ? "nats://127.0.0.1:" : ",nats://127.0.0.1:") + std::to_string(m_ports[i]);
        }
        return urls;
    }
    NatsSettings settings() const {
        NatsSettings settings;
        settings.urls = urls();
        settings.subject = subject;
        return settings;
    }
    std::string storage(std::size_t server) const {
        return m_folder + "/" + std::to_string(server) + ".store";
    }

    // The server that leads the stream.
    std::size_t leader() {
        std::size_t number = m_size;
        expectTrue(waitUntil([&] {
                       jsStreamInfo* info = nullptr;
                       if (connect() && js_GetStreamInfo(&info, m_context, "reports", nullptr,
                                                         nullptr) == NATS_OK) {
                           if (info->Cluster != nullptr && info->Cluster->Leader != nullptr) {
                               number = static_cast<std::size_t>(info->Cluster->Leader[1] - '0');
                           }
                           jsStreamInfo_Destroy(info);
                       }
                       return number < m_size;
                   }),
                   "no leader");
        return number;
    }

    // What the stream holds, oldest first.
    std::vector<std::string> values() {
        std::vector<std::string> values;
        // The server that the reader is served by may be gone with it.
        expectTrue(waitUntil([&] { return connect() && read(values); }), "the stream is not read");
        return values;
    }
    u64 count() {
        u64 count = 0;
        expectTrue(waitUntil([&] {
                       jsStreamInfo* info = nullptr;
                       if (!connect() || js_GetStreamInfo(&info, m_context, "reports", nullptr,
                                                          nullptr) != NATS_OK) {
                           return false;
                       }
                       count = info->State.Msgs;
                       jsStreamInfo_Destroy(info);
                       return true;
                   }),
                   "the stream does not answer");
        return count;
    }

    // Of the stream, in bytes.
    s64 maxMessage = -1;
    s64 maxBytes = -1;

private:
    static void expectTrue(bool condition, const char* words) {
        if (!condition) {
            throw std::runtime_error(words);
        }
    }

    std::string configuration(std::size_t server) const {
        std::string routes;
        for (std::size_t i = m_size; i < 2 * m_size; ++i) {
            routes += (routes.empty() ? "\"nats://127.0.0.1:" : ", \"nats://127.0.0.1:") +
                      std::to_string(m_ports[i]) + "\"";
        }
        std::string text = "server_name: n" + std::to_string(server) +
                           "\nlisten: \"127.0.0.1:" + std::to_string(m_ports[server]) +
                           "\"\nmax_payload: 100000\n" + "jetstream { store_dir: \"" +
                           storage(server) + "\" }\n" + m_users;
        if (m_size > 1) {
            text += "cluster { name: c, listen: \"127.0.0.1:" +
                    std::to_string(m_ports[m_size + server]) + "\", routes: [" + routes + " ] }\n";
        }
        return text;
    }

    bool connect() {
        if (m_connection != nullptr &&
            natsConnection_Status(m_connection) == NATS_CONN_STATUS_CONNECTED) {
            return true;
        }
        disconnect();
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        std::vector<std::string> urls;
        std::vector<const char*> texts;
        for (std::size_t i = 0; i < m_size; ++i) {
            urls.push_back("nats://" + std::string(m_users.empty() ? "" : "user:word@") +
                           "127.0.0.1:" + std::to_string(m_ports[i]));
        }
        for (const std::string& url : urls) {
            texts.push_back(url.c_str());
        }
        natsOptions_SetServers(options, texts.data(), static_cast<int>(texts.size()));
        natsOptions_SetAllowReconnect(options, false);
        const natsStatus status = natsConnection_Connect(&m_connection, options);
        natsOptions_Destroy(options);
        return status == NATS_OK &&
               natsConnection_JetStream(&m_context, m_connection, nullptr) == NATS_OK;
    }
    void disconnect() {
        jsCtx_Destroy(std::exchange(m_context, nullptr));
        natsConnection_Destroy(std::exchange(m_connection, nullptr));
    }

    bool read(std::vector<std::string>& values) {
        values.clear();
        natsSubscription* subscription = nullptr;
        jsSubOptions options;
        jsSubOptions_Init(&options);
        options.Ordered = true;
        natsStatus status =
            js_SubscribeSync(&subscription, m_context, subject, nullptr, &options, nullptr);
        for (u64 left = count(); left > 0 && status == NATS_OK; --left) {
            natsMsg* message = nullptr;
            status = natsSubscription_NextMsg(&message, subscription, 3'000);
            if (status == NATS_OK) {
                values.emplace_back(natsMsg_GetData(message),
                                    static_cast<std::size_t>(natsMsg_GetDataLength(message)));
                natsMsg_Destroy(message);
            }
        }
        natsSubscription_Destroy(subscription);
        return status == NATS_OK;
    }

    bool addStream() {
        if (!connect()) {
            return false;
        }
        const char* subjects[] = {subject};
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = "reports";
        config.Subjects = subjects;
        config.SubjectsLen = 1;
        config.Replicas = static_cast<s64>(m_size);
        config.MaxMsgSize = static_cast<int32_t>(maxMessage);
        config.MaxBytes = maxBytes;
        config.Discard = js_DiscardNew;
        return js_AddStream(nullptr, m_context, &config, nullptr, nullptr) == NATS_OK;
    }

    const std::size_t m_size;
    const std::string m_users;
    const std::vector<int> m_ports;
    const std::string m_folder = testing::TempDir() + "nats." + std::to_string(getpid());
    std::vector<std::unique_ptr<Process>> m_servers;
    natsConnection* m_connection = nullptr;
    jsCtx* m_context = nullptr;
};

std::string messageOf(const NatsSettings& settings) {
    try {
        makeNatsSink(settings);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

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
};

} // namespace

TEST_F(NatsSinkTest, EveryRecordIsStoredOnceWhenTheLeaderIsKilled) {
    NatsCluster cluster(3);
    cluster.start();
    const u64 half = recordsOfARun() / 2;
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(half);
    ASSERT_TRUE(waitUntil([&] { return sending.delivered() > half / 4; }));
    cluster.kill(cluster.leader());
    sending.push(half);
    expectAllStoredOnce(sending, cluster);
}

TEST_F(NatsSinkTest, AKillAtAnyMomentLosesNothingThatWasAccepted) {
    NatsCluster cluster(1);
    cluster.start();
    killAtRandomMoments("--nats " + cluster.urls() + " --subject " + subject,
                        [&] { return cluster.values(); });
}

TEST_F(NatsSinkTest, ARestartedServerIsFoundAgain) {
    NatsCluster cluster(1);
    cluster.start();
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    ASSERT_TRUE(waitUntil([&] { return sending.delivered() == 100; }));
    cluster.kill(0);
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records"));
    EXPECT_EQ(sending.delivered(), 100U);
    cluster.start(0);
    expectAllStoredOnce(sending, cluster);
}

TEST_F(NatsSinkTest, AServerThatIsAwayAtTheStartIsWaitedFor) {
    NatsCluster cluster(1);
    cluster.start();
    cluster.kill(0);
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records"));
    cluster.start(0);
    expectAllStoredOnce(sending, cluster);
}

TEST_F(NatsSinkTest, WithoutAServerTheEndComesInTimeWithEverythingWaiting) {
    const NatsCluster cluster(1);
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    const AccountNumbers account = sending.end(std::chrono::seconds(1));
    EXPECT_EQ(account.waiting, 101U) << account.text();
}

// What is not acknowledged is published again under the same id.
TEST_F(NatsSinkTest, ARepeatWithinTheWindowIsStoredOnce) {
    NatsCluster cluster(1);
    cluster.start();
    Record record;
    record.ticket = 7;
    record.sequence = 3;
    record.origin = std::make_shared<Origin>(Origin{"host", "boot"});
    record.line = "{\"sequence\":3}\n";

    class Answers : public IAnswers {
    public:
        void answer(std::vector<Answer> answers) override {
            for (const Answer& each : answers) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_delivered += each.fate == Fate::Delivered && each.ticket == 7 ? 1 : 0;
            }
        }
        int delivered() {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_delivered;
        }

    private:
        std::mutex m_mutex;
        int m_delivered = 0;
    } answers;
    const auto sink = makeNatsSink(cluster.settings());
    sink->start(answers);
    for (const int times : {1, 2}) {
        sink->send({&record});
        EXPECT_TRUE(waitUntil([&] { return answers.delivered() == times; }));
        sink->purge();
    }
    EXPECT_EQ(cluster.values(), std::vector<std::string>{"{\"sequence\":3}"});
}

TEST_F(NatsSinkTest, OnlyTheRecordThatIsTooLargeFails) {
    NatsCluster cluster(1);
    cluster.maxMessage = 10'000;
    cluster.start();
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
    EXPECT_EQ(cluster.count(), 21U);
}

TEST_F(NatsSinkTest, WhatAFullStreamDoesNotTakeWaits) {
    NatsCluster cluster(1);
    cluster.maxBytes = 20'000;
    cluster.start();
    Sending sending(makeNatsSink(cluster.settings()));
    sending.push(100);
    ASSERT_TRUE(log.waitFor("NATS takes no records: maximum bytes exceeded"));
    const AccountNumbers account = sending.end(std::chrono::seconds(2));
    EXPECT_EQ(account.delivered, cluster.count());
    EXPECT_EQ(account.delivered + account.waiting, 101U) << account.text();
    expectAllInOrder(cluster.values(), account.delivered);
}

TEST_F(NatsSinkTest, WhatAFullDiskDoesNotTakeWaits) {
    NatsCluster cluster(1);
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
    NatsCluster cluster(1, "authorization { user: user, password: word }\n");
    cluster.start();
    const std::string server = cluster.urls().substr(std::string("nats://").size());
    NatsSettings settings = cluster.settings();
    const std::string refused = messageOf(settings);
    EXPECT_NE(refused.find(server), std::string::npos) << refused;
    settings.urls = "nats://user:false@" + server;
    const std::string message = messageOf(settings);
    EXPECT_NE(message.find(server), std::string::npos) << message;
    EXPECT_EQ(message.find("false"), std::string::npos) << message;

    settings.urls = "nats://user:word@" + server;
    EXPECT_EQ(messageOf(settings), "no error");
    settings.subject = "raports";
    EXPECT_EQ(messageOf(settings), "NATS: no stream takes the subject raports");
}

TEST_F(NatsSinkTest, AFileThatIsNoneIsSaidByName) {
    for (auto member : {&NatsSettings::credentials, &NatsSettings::tlsCa}) {
        NatsSettings settings;
        settings.urls = "nats://127.0.0.1:1";
        settings.*member = "/no/such/file";
        EXPECT_EQ(messageOf(settings), "NATS: cannot read /no/such/file");
    }
    NatsSettings settings;
    settings.urls = "nats://127.0.0.1:1";
    settings.tlsCert = "/proc/self/exe";
    EXPECT_EQ(messageOf(settings), "NATS: a certificate and its key go together");
    settings.tlsKey = "/proc/self/exe";
    EXPECT_NE(messageOf(settings).find("NATS: /proc/self/exe and /proc/self/exe: "),
              std::string::npos);
}
