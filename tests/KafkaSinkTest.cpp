#include "host/forwarding/KafkaSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Files.h"
#include "tests/support/Forwarding.h"
#include "tests/support/Kills.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace {

constexpr short produceRequest = 0;

using Handle = std::unique_ptr<rd_kafka_t, Destroy<rd_kafka_destroy>>;
using Message = std::unique_ptr<rd_kafka_message_t, Destroy<rd_kafka_message_destroy>>;

// Three brokers that speak the protocol, in threads of this process, and one topic of three
// partitions.
class KafkaCluster {
public:
    KafkaCluster() {
        rd_kafka_mock_topic_create(m_cluster, topic, partitions, 3);
        lead(1);
    }
    ~KafkaCluster() { rd_kafka_mock_cluster_destroy(m_cluster); }
    KafkaCluster(const KafkaCluster&) = delete;
    KafkaCluster& operator=(const KafkaCluster&) = delete;

    std::string brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }
    KafkaSettings settings() const {
        KafkaSettings settings;
        settings.brokers = brokers();
        settings.topic = topic;
        // What a broker that comes back waits for.
        settings.set("reconnect.backoff.max.ms=100");
        return settings;
    }

    // Of all partitions.
    void lead(int broker) {
        for (int partition = 0; partition < partitions; ++partition) {
            rd_kafka_mock_partition_set_leader(m_cluster, topic, partition, broker);
        }
    }
    void setAllDown() { forEach(rd_kafka_mock_broker_set_down); }
    void setAllUp() { forEach(rd_kafka_mock_broker_set_up); }
    rd_kafka_mock_cluster_t* get() { return m_cluster; }
    // The answers to the next requests to store something.
    void refuse(const std::vector<rd_kafka_resp_err_t>& errors) {
        rd_kafka_mock_push_request_errors_array(m_cluster, produceRequest, errors.size(),
                                                errors.data());
    }

    static constexpr const char* topic = "reports";
    static constexpr int partitions = 3;

    // With these further properties.
    static Handle makeHandle(rd_kafka_type_t type, std::map<std::string, std::string> properties) {
        rd_kafka_conf_t* conf = rd_kafka_conf_new();
        rd_kafka_conf_set_log_cb(conf, nullptr);
        properties["reconnect.backoff.max.ms"] = "100";
        for (const auto& [name, value] : properties) {
            rd_kafka_conf_set(conf, name.c_str(), value.c_str(), nullptr, 0);
        }
        return Handle(rd_kafka_new(type, conf, nullptr, 0));
    }

private:
    template <typename Function>
    void forEach(Function function) {
        for (const int broker : {1, 2, 3}) {
            function(m_cluster, broker);
        }
    }

    const Handle m_owner = makeHandle(RD_KAFKA_PRODUCER, {});
    rd_kafka_mock_cluster_t* const m_cluster = rd_kafka_mock_cluster_new(m_owner.get(), 3);
};

// Reads what is stored from the first record on, while it is being stored: the brokers forget.
class KafkaReader {
public:
    explicit KafkaReader(const KafkaCluster& cluster)
        : m_consumer(
              KafkaCluster::makeHandle(RD_KAFKA_CONSUMER, {{"bootstrap.servers", cluster.brokers()},
                                                           {"group.id", "readers"},
                                                           {"fetch.wait.max.ms", "20"}})) {
        rd_kafka_poll_set_consumer(m_consumer.get());
        rd_kafka_topic_partition_list_t* all = rd_kafka_topic_partition_list_new(1);
        for (int partition = 0; partition < KafkaCluster::partitions; ++partition) {
            rd_kafka_topic_partition_list_add(all, KafkaCluster::topic, partition)->offset =
                RD_KAFKA_OFFSET_BEGINNING;
        }
        rd_kafka_assign(m_consumer.get(), all);
        rd_kafka_topic_partition_list_destroy(all);
        m_thread = std::thread(&KafkaReader::run, this);
    }
    ~KafkaReader() {
        m_isOver = true;
        m_thread.join();
        rd_kafka_consumer_close(m_consumer.get());
    }
    KafkaReader(const KafkaReader&) = delete;
    KafkaReader& operator=(const KafkaReader&) = delete;

    std::vector<std::string> values() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_values;
    }
    bool waitForLast(u64 sequence) {
        return waitUntil([&] { return m_last >= sequence; });
    }

private:
    void run() {
        while (!m_isOver) {
            const Message message(rd_kafka_consumer_poll(m_consumer.get(), 20));
            if (message != nullptr && message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
                keep(std::string(static_cast<const char*>(message->payload), message->len));
            }
        }
    }
    void keep(std::string value) {
        m_last = std::max(m_last.load(), sequencesOf({value})[0]);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_values.push_back(std::move(value));
    }

    const Handle m_consumer;
    std::atomic<bool> m_isOver{false};
    std::atomic<u64> m_last{0};
    std::mutex m_mutex;
    std::vector<std::string> m_values;
    std::thread m_thread;
};

class KafkaSinkTest : public testing::Test {
protected:
    // Everything that was pushed is stored, in order.
    void expectAllStored(Sending& sending) {
        const u64 count = sending.pushed() + 1;
        sending.endWithAllDelivered();
        EXPECT_TRUE(reader.waitForLast(count));
        expectAllInOrder(reader.values(), count);
    }

    // One record fails for its size.
    static void expectOneTooLarge(Sending& sending) {
        const AccountNumbers account = sending.end();
        EXPECT_EQ(account.failures,
                  (std::map<std::string, u64>{{"Broker: Message size too large", 1}}));
        EXPECT_EQ(account.delivered, sending.pushed()) << account.text();
    }

    // So many that the brokers keep them until the reader has come along.
    const u64 part = std::min<u64>(recordsOfARun() / 2, 4'000);
    RecordingLog log;
    const TempFolder folder;
    KafkaCluster cluster;
    KafkaReader reader{cluster};
};

} // namespace

TEST_F(KafkaSinkTest, AnotherProgramReadsEachRecordOnceUnderTheHostsKey) {
    Sending sending(makeKafkaSink(cluster.settings()));
    sending.push(500);
    sending.endWithAllDelivered();

    Process kcat({"timeout", "20", "kcat", "-C", "-q", "-e", "-b", cluster.brokers(), "-t",
                  KafkaCluster::topic, "-o", "beginning", "-f", "%p %k %s\\n"},
                 folder / "kcat");
    EXPECT_EQ(kcat.wait(), 0) << kcat.output();
    std::vector<std::string> values;
    std::set<std::string> partitions;
    for (const std::string& line : linesOf(folder / "kcat")) {
        const std::size_t value = line.find('{');
        partitions.insert(line.substr(0, value));
        values.push_back(line.substr(value));
    }
    EXPECT_EQ(values.size(), 501U);
    expectAllInOrder(values, 501);
    ASSERT_EQ(partitions.size(), 1U) << "a host's records are in one partition";
    EXPECT_EQ(partitions.begin()->substr(2), "host-1 ");
}

TEST_F(KafkaSinkTest, AServiceOfFewLinesSendsItsOwnReport) {
    Process service({"timeout", "20", OWN_KAFKA_REPORTS, cluster.brokers(), KafkaCluster::topic,
                     OWN_KAFKA_REPORTS},
                    folder / "service");
    EXPECT_EQ(service.wait(), 0) << service.output();
    ASSERT_TRUE(reader.waitForLast(2)) << service.output();
    const auto report = nlohmann::json::parse(reader.values()[0]);
    EXPECT_EQ(report["eventName"], "StoragePeriodicParcel");
    EXPECT_EQ(report["service"], "own_kafka_reports");
    EXPECT_NE(service.output().find("delivered=2"), std::string::npos) << service.output();
}

TEST_F(KafkaSinkTest, AKillAtAnyMomentLosesNothingThatWasAccepted) {
    killAtRandomMoments("--kafka " + cluster.brokers() + " --topic " + KafkaCluster::topic,
                        [&] { return reader.values(); });
}

TEST_F(KafkaSinkTest, NothingIsLostWhileTheLeaderIsDown) {
    Sending sending(makeKafkaSink(cluster.settings()));
    while (sending.pushed() < recordsOfARun()) {
        sending.push(part);
        ASSERT_TRUE(reader.waitForLast(sending.pushed() - part / 2));
        rd_kafka_mock_broker_set_down(cluster.get(), 1);
        sending.push(part);
        // Longer than the forwarder waits for an answer: what is in flight is given up.
        ASSERT_TRUE(log.waitFor("Kafka takes no records"));
        rd_kafka_mock_broker_set_up(cluster.get(), 1);
        ASSERT_TRUE(reader.waitForLast(sending.pushed()));
        log.clear();
    }
    expectAllStored(sending);
}

TEST_F(KafkaSinkTest, NothingIsLostWhileTheLeaderChanges) {
    Sending sending(makeKafkaSink(cluster.settings()));
    while (sending.pushed() < recordsOfARun()) {
        for (const int leader : {2, 3, 1, 3, 2, 1}) {
            sending.push(part / 2);
            cluster.lead(leader);
        }
        ASSERT_TRUE(reader.waitForLast(sending.pushed()));
    }
    expectAllStored(sending);
}

// Whatever the library takes for good, or for the producer's end.
TEST_F(KafkaSinkTest, NothingIsLostByAnErrorOfTheBrokers) {
    Sending sending(makeKafkaSink(cluster.settings()));
    for (const rd_kafka_resp_err_t error :
         {RD_KAFKA_RESP_ERR__TRANSPORT, RD_KAFKA_RESP_ERR_NOT_LEADER_FOR_PARTITION,
          RD_KAFKA_RESP_ERR_NOT_ENOUGH_REPLICAS, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED,
          RD_KAFKA_RESP_ERR_OUT_OF_ORDER_SEQUENCE_NUMBER, RD_KAFKA_RESP_ERR_INVALID_PRODUCER_EPOCH,
          RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE}) {
        cluster.refuse({error});
        const u64 before = sending.delivered();
        sending.push(100);
        EXPECT_TRUE(waitUntil([&] { return sending.delivered() == before + 100; }))
            << rd_kafka_err2name(error) << ": " << sending.account().text();
    }
    expectAllStored(sending);
}

TEST_F(KafkaSinkTest, OnlyTheRecordThatABrokerRefusesFails) {
    Sending sending(makeKafkaSink(cluster.settings()));
    // The whole batch, then the first record alone.
    cluster.refuse({RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE, RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE});
    sending.push(20);
    expectOneTooLarge(sending);
    EXPECT_TRUE(log.waitFor("one by one"));
}

TEST_F(KafkaSinkTest, ARecordLargerThanTheProducerTakesFails) {
    KafkaSettings settings = cluster.settings();
    settings.set("message.max.bytes=2000");
    Sending sending(makeKafkaSink(settings));
    sending.push(1);
    sending.push(1, 3'000);
    sending.push(1);
    expectOneTooLarge(sending);
}

TEST_F(KafkaSinkTest, WhatIsNotAcknowledgedIsSentAgain) {
    Sending sending(makeKafkaSink(cluster.settings()));
    rd_kafka_mock_broker_set_rtt(cluster.get(), 1, 3'000);
    sending.push(10);
    ASSERT_TRUE(log.waitFor("Kafka takes no records: no answer"));
    rd_kafka_mock_broker_set_rtt(cluster.get(), 1, 0);
    expectAllStored(sending);
}

TEST_F(KafkaSinkTest, BrokersThatAreAwayAtTheStartAreWaitedFor) {
    cluster.setAllDown();
    Sending sending(makeKafkaSink(cluster.settings()));
    EXPECT_TRUE(log.waitFor("says whether there is a topic reports"));
    sending.push(100);
    cluster.setAllUp();
    expectAllStored(sending);
}

TEST_F(KafkaSinkTest, WithoutBrokersTheEndComesInTimeWithEverythingWaiting) {
    cluster.setAllDown();
    Sending sending(makeKafkaSink(cluster.settings()));
    sending.push(100);
    const AccountNumbers account = sending.end(std::chrono::seconds(1));
    EXPECT_EQ(account.waiting, 101U) << account.text();
    EXPECT_TRUE(reader.values().empty());
}

TEST_F(KafkaSinkTest, AWrongConfigurationIsSaidByName) {
    const auto refusal = [&](const std::string& topic, const char* property) {
        KafkaSettings settings = cluster.settings();
        settings.topic = topic;
        settings.set(property);
        return messageOf([&] { makeKafkaSink(settings); });
    };
    for (const auto& [property, words] :
         {std::pair("no.such=1", "property no.such: No such configuration property"),
          {"linger.ms=soon", "property linger.ms: Invalid value"},
          {"acks=1", "acks"},
          {"enable.idempotence=false", "property enable.idempotence is not yours to set"},
          {"delivery.report.only.error=true", "delivery.report.only.error is not yours"}}) {
        EXPECT_TRUE(holds(refusal(KafkaCluster::topic, property), words));
    }
    EXPECT_TRUE(holds(refusal("raports", "linger.ms=5"), "no topic raports"));
}

TEST(KafkaSettingsTest, SecretsComeFromAFileAlone) {
    const TempFolder folder;
    KafkaSettings settings;
    settings.readFile(folder.write("kafka", "# comment\n\n sasl.password = a=b \r\nacks=all\n"));
    EXPECT_EQ(settings.properties(),
              (std::map<std::string, std::string>{{"sasl.password", "a=b"}, {"acks", "all"}}));
    for (const char* name :
         {"sasl.password", "ssl.key.password", "ssl.key.pem", "ssl.keystore.password",
          "sasl.oauthbearer.client.secret", "sasl.oauthbearer.config"}) {
        const std::string message = messageOf([&] { settings.set(std::string(name) + " = hush"); });
        EXPECT_TRUE(holds(message, std::string(name) + " is secret"));
        EXPECT_FALSE(holds(message, "hush"));
    }
}

TEST(KafkaSettingsTest, WhatIsNoPropertyIsRefusedWithItsPlace) {
    const TempFolder folder;
    KafkaSettings settings;
    for (const char* text : {"acks", "=all", ""}) {
        EXPECT_EQ(messageOf([&] { settings.set(text); }),
                  "expected a Kafka property as name=value");
    }
    const std::string path = folder.write("kafka", "acks=all\nsasl.password hush\n");
    EXPECT_EQ(messageOf([&] { settings.readFile(path); }),
              path + ":2: expected a property as name=value");
    EXPECT_EQ(messageOf([&] { settings.readFile(folder / "none"); }),
              "cannot read " + (folder / "none") + ": No such file or directory");
}
