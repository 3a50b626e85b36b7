#include "host/forwarding/KafkaSink.h"

#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "host/forwarding/Destroy.h"
#include "host/forwarding/Record.h"

#include <librdkafka/rdkafka.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

// librdkafka's RD_KAFKA_V_ macros check the types of their arguments by this extension.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wgnu-statement-expression"
#endif

namespace {

// Properties that the sink sets, or whose values it relies on.
constexpr std::array<std::string_view, 6> ownProperties = {
    "bootstrap.servers",        "metadata.broker.list", "enable.idempotence",
    "enable.gapless.guarantee", "transactional.id",     "delivery.report.only.error"};

constexpr int topicQuestionMs = 3'000;

using ErrorText = std::array<char, 512>;

using Conf = std::unique_ptr<rd_kafka_conf_t, Destroy<rd_kafka_conf_destroy>>;
using Handle = std::unique_ptr<rd_kafka_t, Destroy<rd_kafka_destroy>>;
using Queue = std::unique_ptr<rd_kafka_queue_t, Destroy<rd_kafka_queue_destroy>>;
using Event = std::unique_ptr<rd_kafka_event_t, Destroy<rd_kafka_event_destroy>>;

void writeLog(const rd_kafka_t* /*handle*/, int /*level*/, const char* facility, const char* text) {
    LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
        << "librdkafka: " << facility << ": " << text << std::endl;
}

void set(rd_kafka_conf_t* conf, const std::string& name, const std::string& value) {
    ErrorText error{};
    if (rd_kafka_conf_set(conf, name.c_str(), value.c_str(), error.data(), error.size()) !=
        RD_KAFKA_CONF_OK) {
        throw std::runtime_error("the Kafka property " + name + ": " + error.data());
    }
}

Handle makeHandle(const KafkaSettings& settings, bool oneByOne) {
    Conf conf(rd_kafka_conf_new());
    rd_kafka_conf_set_events(conf.get(), RD_KAFKA_EVENT_DR | RD_KAFKA_EVENT_ERROR);
    rd_kafka_conf_set_log_cb(conf.get(), writeLog);
    set(conf.get(), "bootstrap.servers", settings.brokers);
    set(conf.get(), "enable.idempotence", "true");
    // A batch that a broker refuses for good stops the producer: later ones would overtake it.
    set(conf.get(), "enable.gapless.guarantee", "true");
    for (const auto& [name, value] : settings.properties()) {
        if (std::find(ownProperties.begin(), ownProperties.end(), name) != ownProperties.end()) {
            throw std::runtime_error("the Kafka property " + name + " is not yours to set");
        }
        set(conf.get(), name, value);
    }
    if (oneByOne) {
        set(conf.get(), "batch.num.messages", "1");
    }
    ErrorText error{};
    Handle handle(rd_kafka_new(RD_KAFKA_PRODUCER, conf.get(), error.data(), error.size()));
    if (handle == nullptr) {
        throw std::runtime_error(std::string("Kafka's properties: ") + error.data());
    }
    static_cast<void>(conf.release()); // the handle's now
    return handle;
}

// Whether the record is the reason, so that another attempt ends the same way.
bool isOfTheRecord(rd_kafka_resp_err_t error) {
    return error == RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE ||
           error == RD_KAFKA_RESP_ERR_INVALID_MSG_SIZE || error == RD_KAFKA_RESP_ERR_INVALID_RECORD;
}

void* toOpaque(u64 ticket) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(ticket)); // NOLINT: an opaque number
}

// A producer and what it has in flight. It is given up at the first trouble and another one takes
// its place: what is still in its queues cannot overtake what is sent again.
class Session {
public:
    Session(Handle handle, bool oneByOne)
        : m_isOneByOne(oneByOne),
          m_handle(std::move(handle)),
          m_queue(rd_kafka_queue_get_main(m_handle.get())) {}
    ~Session() {
        {
            const CheckedLock lock(m_mutex);
            m_inFlight.clear(); // nobody is answered any more
        }
        end();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    rd_kafka_t* handle() const { return m_handle.get(); }

    void serve(IAnswers& answers) {
        m_answers = &answers;
        m_thread = std::thread(&Session::run, this);
    }

    void send(const std::string& topic, const std::vector<const Record*>& batch) {
        addInFlight(batch);
        for (const Record* record : batch) {
            const rd_kafka_resp_err_t error = produce(topic, *record);
            if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
                refuse(record->ticket, error);
            }
        }
    }

    // Produces nothing more, and answers what is in flight.
    void giveUp(const std::string& reason) {
        std::vector<Answer> answers;
        {
            const CheckedLock lock(m_mutex);
            stopProducing();
            answers.reserve(m_inFlight.size());
            for (const u64 ticket : m_inFlight) {
                answers.push_back({ticket, Fate::TryAgain, reason});
            }
        }
        answer(std::move(answers));
    }

    // Lets its thread end.
    void end() {
        const CheckedLock lock(m_mutex);
        if (!m_isOver.exchange(true)) {
            stopProducing();
            rd_kafka_queue_yield(m_queue.get());
        }
    }

    bool hasEnded() const { return m_hasEnded; }
    // A broker refused a batch, which may have held several records, for what is in it.
    bool wasRefused() const { return m_wasRefused; }

private:
    void run() {
        pthread_setname_np(pthread_self(), "kafka");
        while (!m_isOver) {
            const Event event(rd_kafka_queue_poll(m_queue.get(), -1));
            try {
                take(event.get());
            } catch (const std::bad_alloc&) {
                {
                    const CheckedLock lock(m_mutex);
                    stopProducing(); // nothing overtakes a record whose answer is lost
                }
                LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
                    << "Kafka: out of memory; what has no answer is sent again" << std::endl;
            }
        }
        {
            const CheckedLock lock(m_mutex); // until end() has returned
        }
        // Destroying the handle may wait for a DNS lookup, so this thread does it: no other thread
        // waits for it.
        m_queue.reset();
        m_handle.reset();
        m_hasEnded = true;
    }

    void take(rd_kafka_event_t* event) {
        switch (rd_kafka_event_type(event)) {
        case RD_KAFKA_EVENT_DR:
            takeReports(event);
            break;
        case RD_KAFKA_EVENT_ERROR:
            takeError(event);
            break;
        default:
            break; // woken
        }
    }

    // All or, if it throws, none.
    void addInFlight(const std::vector<const Record*>& batch) {
        std::unordered_set<u64> tickets;
        for (const Record* record : batch) {
            tickets.insert(record->ticket);
        }
        const CheckedLock lock(m_mutex);
        m_inFlight.reserve(m_inFlight.size() + tickets.size());
        m_inFlight.merge(tickets);
    }

    rd_kafka_resp_err_t produce(const std::string& topic, const Record& record) {
        if (m_isBroken) {
            return RD_KAFKA_RESP_ERR__PURGE_QUEUE;
        }
        const std::string& key = record.origin->host;
        const std::size_t size = record.line.empty() ? 0 : record.line.size() - 1; // no line feed
        return rd_kafka_producev(
            m_handle.get(), RD_KAFKA_V_TOPIC(topic.c_str()),
            RD_KAFKA_V_KEY(const_cast<char*>(key.data()), key.size()),     // NOLINT: copied
            RD_KAFKA_V_VALUE(const_cast<char*>(record.line.data()), size), // NOLINT: copied
            RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY), RD_KAFKA_V_OPAQUE(toOpaque(record.ticket)),
            RD_KAFKA_V_END);
    }

    // Without memory for the answer, the record stays in flight until the forwarder gives it up.
    void refuse(u64 ticket, rd_kafka_resp_err_t error) {
        const bool isLost = isOfTheRecord(error);
        if (!isLost) {
            const CheckedLock lock(m_mutex);
            stopProducing();
        }
        try {
            answer({{ticket, isLost ? Fate::Failed : Fate::TryAgain, rd_kafka_err2str(error)}});
        } catch (const std::bad_alloc&) {
            return;
        }
    }

    void takeReports(rd_kafka_event_t* event) {
        std::vector<Answer> answers;
        answers.reserve(rd_kafka_event_message_count(event));
        while (const rd_kafka_message_t* message = rd_kafka_event_message_next(event)) {
            const auto ticket =
                static_cast<u64>(reinterpret_cast<std::uintptr_t>(message->_private));
            answers.push_back(answerOf(ticket, message->err));
        }
        answer(std::move(answers));
    }

    // Passes on the answers of records in flight. With none in flight, nobody may listen any more.
    void answer(std::vector<Answer> answers) {
        {
            const CheckedLock lock(m_mutex);
            const auto end =
                std::remove_if(answers.begin(), answers.end(), [this](const Answer& each) {
                    m_mutex.assumeHeld();
                    return m_inFlight.erase(each.ticket) == 0;
                });
            answers.erase(end, answers.end());
        }
        if (!answers.empty()) {
            m_answers->answer(std::move(answers));
        }
    }

    Answer answerOf(u64 ticket, rd_kafka_resp_err_t error) {
        if (error == RD_KAFKA_RESP_ERR_NO_ERROR) {
            m_lastError = error;
            return {ticket, Fate::Delivered, {}};
        }
        const bool isLost = isOfTheRecord(error) && m_isOneByOne;
        m_wasRefused = m_wasRefused || isOfTheRecord(error);
        const CheckedLock lock(m_mutex);
        stopProducing();
        return {ticket, isLost ? Fate::Failed : Fate::TryAgain, rd_kafka_err2str(error)};
    }

    void takeError(rd_kafka_event_t* event) {
        const rd_kafka_resp_err_t error = rd_kafka_event_error(event);
        if (error != std::exchange(m_lastError, error)) {
            LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                << "Kafka: " << rd_kafka_err2str(error) << ": "
                << rd_kafka_event_error_string(event) << std::endl;
        }
        if (error == RD_KAFKA_RESP_ERR__FATAL) {
            giveUp(rd_kafka_err2str(error));
        }
    }

    // Records that are still queued would overtake those that failed.
    void stopProducing() ANALYTICS_REQUIRES(m_mutex) {
        if (!m_isBroken.exchange(true)) {
            rd_kafka_purge(m_handle.get(), RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT |
                                               RD_KAFKA_PURGE_F_NON_BLOCKING);
        }
    }

    const bool m_isOneByOne; // batches hold one record
    Handle m_handle;
    Queue m_queue;
    IAnswers* m_answers = nullptr;

    std::atomic<bool> m_isBroken{false}; // produces nothing more
    std::atomic<bool> m_isOver{false};
    std::atomic<bool> m_hasEnded{false};
    std::atomic<bool> m_wasRefused{false};
    rd_kafka_resp_err_t m_lastError = RD_KAFKA_RESP_ERR_NO_ERROR; // its thread's

    CheckedMutex m_mutex;
    std::unordered_set<u64> m_inFlight ANALYTICS_GUARDED_BY(m_mutex); // tickets
    std::thread m_thread;
};

// A topic that the brokers do not have. All topics are asked for: to ask for one may make it.
bool isUnknown(const std::string& topic, const rd_kafka_metadata_t& brokers) {
    return std::none_of(brokers.topics, brokers.topics + brokers.topic_cnt,
                        [&](const rd_kafka_metadata_topic_t& each) { return topic == each.topic; });
}

void askForTopic(rd_kafka_t* handle, const KafkaSettings& settings) {
    const rd_kafka_metadata_t* answer = nullptr;
    const rd_kafka_resp_err_t error =
        rd_kafka_metadata(handle, 1, nullptr, &answer, topicQuestionMs);
    const std::unique_ptr<const rd_kafka_metadata_t, Destroy<rd_kafka_metadata_destroy>> brokers(
        answer);
    if (brokers == nullptr) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "Kafka: no broker of " << settings.brokers << " says whether there is a topic "
            << settings.topic << ": " << rd_kafka_err2str(error) << std::endl;
    } else if (isUnknown(settings.topic, *brokers)) {
        throw std::runtime_error("the brokers " + settings.brokers + " have no topic " +
                                 settings.topic + ", or do not show it to this user");
    }
}

class KafkaSink final : public ISink {
public:
    explicit KafkaSink(KafkaSettings settings)
        : m_settings(std::move(settings)), m_current(makeSession()) {
        askForTopic(m_current->handle(), m_settings);
    }

    const char* name() const override { return "Kafka"; }

    void start(IAnswers& answers) override {
        m_answers = &answers;
        m_current->serve(answers);
    }

    void send(const std::vector<const Record*>& batch) override {
        m_current->send(m_settings.topic, batch);
    }

    void purge() override {
        m_current->giveUp("given up");
        renew();
    }

private:
    std::unique_ptr<Session> makeSession() const {
        return std::make_unique<Session>(makeHandle(m_settings, m_isOneByOne), m_isOneByOne);
    }

    // At most one that was given up is still ending; until it has, the current one refuses.
    void renew() {
        if (m_previous != nullptr && !m_previous->hasEnded()) {
            return;
        }
        if (m_current->wasRefused() && !std::exchange(m_isOneByOne, true)) {
            LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                << "Kafka: a broker refused a batch; records are sent one by one from now on, so "
                   "that only those fail that it refuses. A smaller batch.size may help"
                << std::endl;
        }
        try {
            std::unique_ptr<Session> next = makeSession();
            next->serve(*m_answers);
            m_current->end();
            m_previous = std::exchange(m_current, std::move(next));
        } catch (const std::exception& error) { // no threads to be had, for now
            LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                << "Kafka: no new producer: " << error.what() << std::endl;
        }
    }

    const KafkaSettings m_settings;
    bool m_isOneByOne = false;
    IAnswers* m_answers = nullptr;
    std::unique_ptr<Session> m_current;
    std::unique_ptr<Session> m_previous;
};

} // namespace

std::unique_ptr<ISink> makeKafkaSink(const KafkaSettings& settings) {
    return std::make_unique<KafkaSink>(settings);
}
