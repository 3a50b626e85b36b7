#include "host/forwarding/KafkaSink.h"
#include "host/forwarding/Destroy.h"
#include "host/testing/RecordingAnswers.h"
#include "host/testing/RecordingLog.h"
#include "tests/support/Forwarding.h"

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

namespace {

using Handle = std::unique_ptr<rd_kafka_t, Destroy<rd_kafka_destroy>>;
using Message = std::unique_ptr<rd_kafka_message_t, Destroy<rd_kafka_message_destroy>>;

constexpr const char* topic = "reports";
constexpr int partitions = 3;
constexpr int every = -1;    // broker
constexpr short produce = 0; // a request

Handle makeHandle(rd_kafka_type_t type, const std::map<std::string, std::string>& properties) {
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set_log_cb(conf, nullptr);
    for (const auto& [name, value] : properties) {
        rd_kafka_conf_set(conf, name.c_str(), value.c_str(), nullptr, 0);
    }
    return Handle(rd_kafka_new(type, conf, nullptr, 0));
}

// Three brokers that speak the protocol, in threads of this process, one topic, and its reader.
class KafkaCluster {
public:
    KafkaCluster() {
        rd_kafka_mock_topic_create(get(), topic, partitions, 3);
        lead(1);
        m_reader = makeHandle(RD_KAFKA_CONSUMER, {{"bootstrap.servers", brokers()},
                                                  {"group.id", "readers"},
                                                  {"enable.auto.commit", "false"},
                                                  {"reconnect.backoff.max.ms", "100"},
                                                  {"fetch.wait.max.ms", "20"}});
        rd_kafka_poll_set_consumer(m_reader.get());
        rd_kafka_topic_partition_list_t* all = rd_kafka_topic_partition_list_new(partitions);
        for (int partition = 0; partition < partitions; ++partition) {
            rd_kafka_topic_partition_list_add(all, topic, partition)->offset = 0;
        }
        rd_kafka_assign(m_reader.get(), all);
        rd_kafka_topic_partition_list_destroy(all);
    }

    rd_kafka_mock_cluster_t* get() const { return rd_kafka_handle_mock_cluster(m_owner.get()); }
    std::string brokers() const { return rd_kafka_mock_cluster_bootstraps(get()); }
    // With a further property.
    KafkaSettings settings(const std::string& property = "acks=all") const {
        KafkaSettings settings;
        settings.brokers = brokers();
        settings.topic = topic;
        settings.set("reconnect.backoff.max.ms=100"); // what a broker that comes back waits for
        settings.set(property);
        return settings;
    }
    // Of all partitions.
    void lead(int broker) {
        for (int partition = 0; partition < partitions; ++partition) {
            rd_kafka_mock_partition_set_leader(get(), topic, partition, broker);
        }
    }
    // All so far, one a line. To be read while it is being stored: the brokers forget.
    const std::string& values() {
        while (const Message message{rd_kafka_consumer_poll(m_reader.get(), 0)}) {
            if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
                m_values.append(static_cast<const char*>(message->payload), message->len) += '\n';
                m_keys.emplace(static_cast<const char*>(message->key), message->key_len);
            }
        }
        return m_values;
    }
    bool waitForLast(u64 sequence) {
        const std::string text = "\"sequence\":" + std::to_string(sequence) + ",";
        return waitUntil([&] { return values().find(text) != std::string::npos; });
    }
    const std::set<std::string>& keys() const { return m_keys; }

private:
    const Handle m_owner = makeHandle(RD_KAFKA_PRODUCER, {{"test.mock.num.brokers", "3"}});
    Handle m_reader;
    std::string m_values;
    std::set<std::string> m_keys;
};

class KafkaSinkTest : public testing::Test {
protected:
    // So many that the brokers keep them until the reader has come along.
    const u64 part = std::min<u64>(recordsOfARun / 2, 4'000);
    RecordingLog log;
    const TempFolder folder;
    KafkaCluster cluster;
};

} // namespace

TEST_F(KafkaSinkTest, AServiceOfFewLinesSendsItsOwnReport) {
    Process service("timeout 20 " OWN_KAFKA_REPORTS " " + cluster.brokers() + " reports /dev/null",
                    folder / "service");
    EXPECT_EQ(service.wait(), 0) << service.output();
    ASSERT_TRUE(cluster.waitForLast(2)) << service.output();
    EXPECT_TRUE(holds(cluster.values(), R"("eventName":"StoragePeriodicParcel")"));
    EXPECT_TRUE(holds(cluster.values(), R"("service":"own_kafka_reports")"));
    EXPECT_EQ(cluster.values().find("\n\n"), std::string::npos) << "no line feed is stored";
    EXPECT_TRUE(holds(service.output(), "delivered=2"));
}

TEST_F(KafkaSinkTest, AKillAtAnyMomentLosesNothingThatWasAccepted) {
    killAtRandomMoments("--kafka " + cluster.brokers() + " --topic " + topic,
                        [&] { return cluster.values(); });
}

TEST_F(KafkaSinkTest, NothingIsLostWhileTheLeaderIsDownOrChanges) {
    Sending sending(makeKafkaSink(cluster.settings()));
    while (sending.pushed() < recordsOfARun) {
        sending.push(part);
        ASSERT_TRUE(cluster.waitForLast(sending.pushed() - part / 2));
        rd_kafka_mock_broker_set_down(cluster.get(), 1); // it leads
        sending.push(part);
        // Longer than the forwarder waits for an answer: what is in flight is given up.
        ASSERT_TRUE(log.waitFor("Kafka takes no records"));
        rd_kafka_mock_broker_set_up(cluster.get(), 1);
        ASSERT_TRUE(cluster.waitForLast(sending.pushed()));
        for (const int leader : {2, 3, 1, 3, 2, 1}) {
            sending.push(part / 2);
            cluster.lead(leader);
        }
        ASSERT_TRUE(cluster.waitForLast(sending.pushed()));
        log.clear();
    }
    const u64 count = sending.end().delivered;
    EXPECT_EQ(count, sending.pushed());
    EXPECT_TRUE(cluster.waitForLast(count));
    EXPECT_EQ(lastInOrder(cluster.values()), count);
    // One key, one partition: else the order above is another.
    EXPECT_EQ(cluster.keys(), std::set<std::string>{"host-1"});
}

TEST_F(KafkaSinkTest, OnlyTheRecordThatABrokerRefusesIsLostByAnError) {
    Sending sending(makeKafkaSink(cluster.settings()));
    // Whatever the library takes for good, or for the producer's end.
    for (const rd_kafka_resp_err_t error :
         {RD_KAFKA_RESP_ERR__TRANSPORT, RD_KAFKA_RESP_ERR_NOT_LEADER_FOR_PARTITION,
          RD_KAFKA_RESP_ERR_NOT_ENOUGH_REPLICAS, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED,
          RD_KAFKA_RESP_ERR_OUT_OF_ORDER_SEQUENCE_NUMBER, RD_KAFKA_RESP_ERR_INVALID_PRODUCER_EPOCH,
          RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE}) {
        rd_kafka_mock_push_request_errors(cluster.get(), produce, 1, error);
        sending.push(100);
        EXPECT_TRUE(waitUntil([&] { return sending.delivered() == sending.pushed(); }))
            << rd_kafka_err2name(error);
    }
    EXPECT_TRUE(cluster.waitForLast(sending.pushed()));
    EXPECT_EQ(lastInOrder(cluster.values()), sending.pushed());
    EXPECT_TRUE(log.waitFor("one by one"));
    rd_kafka_mock_broker_set_rtt(cluster.get(), every, 100); // all are produced by then
    rd_kafka_mock_push_request_errors(cluster.get(), produce, 1, RD_KAFKA_RESP_ERR_INVALID_RECORD);
    sending.push(20);
    const AccountNumbers account = sending.end();
    EXPECT_EQ(account.failures,
              (std::map<std::string, u64>{{"Broker: Broker failed to validate record", 1}}));
    EXPECT_EQ(account.delivered, sending.pushed() - 1) << account.text();
}

TEST_F(KafkaSinkTest, NothingIsProducedBehindARecordThatTheProducerDoesNotTakeNow) {
    KafkaSettings settings = cluster.settings("message.max.bytes=2000");
    settings.set("queue.buffering.max.messages=1");
    settings.set("linger.ms=5000"); // it is in the queue until it is purged
    const auto sink = makeKafkaSink(settings);
    RecordingAnswers answers;
    sink->start(answers);
    const Record large = makeRecord(1, "boot", std::string(3'000, 'x'));
    const Record queued = makeRecord(2), refused = makeRecord(3), behind = makeRecord(4);
    sink->send({&large, &queued, &refused, &behind});
    const std::string told = answers.take(4); // of two threads
    for (const char* answer :
         {"1 failed: Broker: Message size too large", "2 try again: Local: Purged in queue",
          "3 try again: Local: Queue full", "4 try again: Local: Purged in queue"}) {
        EXPECT_TRUE(holds(told, answer));
    }
    sink->purge();
    sink->send({&queued});
    sink->purge();
    EXPECT_TRUE(holds(answers.take(1), "2 try again: "));
}

TEST_F(KafkaSinkTest, AWrongConfigurationIsSaidByName) {
    for (const auto& [property, about, words] :
         {std::tuple("no.such=1", topic, "property no.such: No such configuration property"),
          {"linger.ms=soon", topic, "property linger.ms: Invalid value"},
          {"acks=1", topic, "acks"},
          {"enable.idempotence=false", topic, "enable.idempotence is not yours to set"},
          {"metadata.broker.list=b:1", topic, "metadata.broker.list is not yours to set"},
          {"delivery.report.only.error=true", topic, "report.only.error is not yours to set"},
          {"acks=all", "raports", "no topic raports"}}) {
        KafkaSettings settings = cluster.settings(property);
        settings.topic = about;
        EXPECT_TRUE(holds(messageOf([&] { makeKafkaSink(settings); }), words));
    }
}

TEST(KafkaSettingsTest, OnlyAFileHoldsSecretsAndWhatIsNoPropertyIsRefusedWithItsPlace) {
    const TempFolder folder;
    KafkaSettings settings;
    const std::string good = "# comment\n\n sasl.password = a=b \r\nacks=all\n";
    settings.readFile(folder.write("kafka", good));
    EXPECT_EQ(settings.properties(),
              (std::map<std::string, std::string>{{"sasl.password", "a=b"}, {"acks", "all"}}));
    for (const std::string name :
         {"sasl.password", "ssl.key.password", "ssl.key.pem", "ssl.keystore.password",
          "sasl.oauthbearer.client.secret", "sasl.oauthbearer.config"}) {
        EXPECT_EQ(messageOf([&] { settings.set(name + " = hush"); }),
                  "the Kafka property " + name +
                      " is secret: it belongs into a file that others cannot read");
    }
    for (const char* text : {"acks", "=all", ""}) {
        EXPECT_EQ(messageOf([&] { settings.set(text); }),
                  "expected a Kafka property as name=value");
    }
    const std::string path = folder.write("kafka", good + "sasl.password hush\n");
    EXPECT_EQ(messageOf([&] { settings.readFile(path); }),
              path + ":5: expected a property as name=value");
    EXPECT_EQ(messageOf([&] { settings.readFile(folder / "none"); }),
              "cannot read " + (folder / "none") + ": No such file or directory");
}
