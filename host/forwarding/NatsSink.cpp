#include "host/forwarding/NatsSink.h"

#include "common/infra/Lock.h"
#include "common/infra/Log.h"
#include "host/forwarding/Destroy.h"
#include "host/forwarding/Record.h"
#include "host/services/Clock.h"

#include <nats/nats.h>
#include <nlohmann/json.hpp>
#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <list>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr s64 connectMs = 2'000; // for each server
constexpr s64 writeMs = 5'000;
constexpr s64 questionMs = 3'000;
// An election takes at least 4 s. Publishing stops once an answer is 2 s late, so that a new leader
// cannot store later records before a lost one.
constexpr u64 overdueNs = 2 * nsPerSecond;

constexpr const char* notJson = "an answer in an unknown form";

using Options = std::unique_ptr<natsOptions, Destroy<natsOptions_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

// For messages: without the users and passwords that URLs may hold.
std::string withoutSecrets(const std::string& urls) {
    std::string shown;
    for (const std::string& url : split(urls, ',')) {
        const std::size_t scheme = url.find("//");
        const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 2;
        const std::size_t at = url.rfind('@');
        shown += shown.empty() ? "" : ",";
        shown +=
            at == std::string::npos || at < begin ? url : url.substr(0, begin) + url.substr(at + 1);
    }
    return shown;
}

// The text of the last failure on this thread.
std::string lastError(natsStatus status) {
    const char* text = nats_GetLastError(nullptr);
    return text == nullptr || *text == '\0' ? natsStatus_GetText(status) : text;
}

void expectOk(natsStatus status, const std::string& what) {
    if (status != NATS_OK) {
        throw std::runtime_error("NATS: " + what + ": " + lastError(status));
    }
}

void expectReadable(const std::string& path) {
    if (!std::ifstream(path).good()) {
        throw std::runtime_error("NATS: cannot read " + path);
    }
}

void setFiles(natsOptions* options, const NatsSettings& settings) {
    for (const std::string* path :
         {&settings.credentials, &settings.tlsCa, &settings.tlsCert, &settings.tlsKey}) {
        if (!path->empty()) {
            expectReadable(*path);
        }
    }
    if (settings.tlsCert.empty() != settings.tlsKey.empty()) {
        throw std::runtime_error("NATS: a certificate and its key go together");
    }
    if (!settings.credentials.empty()) {
        expectOk(
            natsOptions_SetUserCredentialsFromFiles(options, settings.credentials.c_str(), nullptr),
            settings.credentials);
    }
    if (!settings.tlsCa.empty()) {
        expectOk(natsOptions_LoadCATrustedCertificates(options, settings.tlsCa.c_str()),
                 settings.tlsCa);
    }
    if (!settings.tlsCert.empty()) {
        expectOk(natsOptions_LoadCertificatesChain(options, settings.tlsCert.c_str(),
                                                   settings.tlsKey.c_str()),
                 settings.tlsCert + " and " + settings.tlsKey);
    }
    if (!settings.tlsCa.empty() || !settings.tlsCert.empty()) {
        expectOk(natsOptions_SetSecure(options, true), "TLS");
    }
}

Options makeOptions(const NatsSettings& settings) {
    natsOptions* made = nullptr;
    expectOk(natsOptions_Create(&made), "options");
    Options options(made);
    const std::vector<std::string> urls = split(settings.urls, ',');
    std::vector<const char*> servers;
    servers.reserve(urls.size());
    for (const std::string& url : urls) {
        servers.push_back(url.c_str());
    }
    expectOk(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())),
             withoutSecrets(settings.urls));
    natsOptions_SetName(made, "analytics");
    natsOptions_SetTimeout(made, connectMs);
    natsOptions_SetWriteDeadline(made, writeMs);
    // After a reconnect the library would send what it had buffered, behind records that were lost.
    natsOptions_SetAllowReconnect(made, false);
    setFiles(made, settings);
    return options;
}

// Runs the operation and reports bad_alloc instead of passing it on: it then returns false. A
// record whose answer is lost by that stays in flight until the forwarder gives it up.
template <typename Operation>
bool survive(Operation operation) {
    try {
        operation();
        return true;
    } catch (const std::bad_alloc&) {
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "NATS: out of memory; what has no answer is sent again" << std::endl;
        return false;
    }
}

// Called by a connection, on the library's threads.
class IConnectionUser {
public:
    virtual ~IConnectionUser() = default;
    virtual void take(u64 connection, u64 ticket, Fate fate, std::string reason) = 0;
    virtual void halt(u64 connection) = 0; // an answer is lost: nothing may overtake its record
    virtual void lost(u64 connection) = 0;
};

std::string textOf(const nlohmann::json& error) {
    return error.value("description", "an error without a name");
}

// The fate that a stream's answer tells.
std::pair<Fate, std::string> fateIn(const nlohmann::json& answer) {
    const auto error = answer.find("error");
    if (error == answer.end()) {
        return answer.contains("stream") ? std::pair(Fate::Delivered, std::string())
                                         : std::pair(Fate::TryAgain, std::string(notJson));
    }
    constexpr int tooLarge = 10054; // for this stream
    return {error->value("err_code", 0) == tooLarge ? Fate::Failed : Fate::TryAgain,
            textOf(*error)};
}

// Throws nlohmann::json::exception.
nlohmann::json jsonOf(natsMsg* message) {
    return nlohmann::json::parse(std::string_view(
        natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))));
}

std::pair<Fate, std::string> fateOf(natsMsg* answer) {
    if (natsMsg_IsNoResponders(answer)) {
        return {Fate::TryAgain, "no stream takes records now"};
    }
    try {
        return fateIn(jsonOf(answer));
    } catch (const nlohmann::json::exception&) {
        return {Fate::TryAgain, notJson};
    }
}

// A connection and the subject at which answers come. Once it is lost it is over.
class Connection {
public:
    // If no server lets it in, it is not open.
    Connection(natsOptions* options, u64 number, IConnectionUser& user)
        : m_number(number), m_user(user) {
        natsOptions_SetClosedCB(options, onClosed, this);
        const natsStatus status = natsConnection_Connect(&m_connection, options);
        m_error = status == NATS_OK ? "" : lastError(status);
        m_isRefused = status == NATS_CONNECTION_AUTH_FAILED || status == NATS_INVALID_ARG ||
                      status == NATS_SSL_ERROR || status == NATS_SECURE_CONNECTION_WANTED ||
                      status == NATS_SECURE_CONNECTION_REQUIRED;
        if (status != NATS_OK) {
            m_connection = nullptr;
            return;
        }
        try {
            subscribe();
        } catch (...) {
            close();
            throw;
        }
    }
    // Waits for the library's calls to end.
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const {
        return m_connection != nullptr &&
               natsConnection_Status(m_connection) == NATS_CONN_STATUS_CONNECTED;
    }
    // Why there is none; whether another attempt ends the same way.
    const std::string& error() const { return m_error; }
    bool isRefused() const { return m_isRefused; }
    u64 number() const { return m_number; }
    natsConnection* get() const { return m_connection; }

    natsStatus publish(const std::string& subject, const std::string& id, const std::string& line,
                       u64 ticket) {
        const std::string reply = m_inbox + "." + std::to_string(ticket);
        natsMsg* made = nullptr;
        const std::size_t size = line.empty() ? 0 : line.size() - 1; // no line feed
        natsStatus status = natsMsg_Create(&made, subject.c_str(), reply.c_str(), line.data(),
                                           static_cast<int>(size));
        const Message message(made);
        if (status == NATS_OK) {
            status = natsMsgHeader_Set(made, "Nats-Msg-Id", id.c_str());
        }
        return status == NATS_OK ? natsConnection_PublishMsg(m_connection, made) : status;
    }

private:
    void close() {
        if (m_connection != nullptr) {
            natsConnection_Close(m_connection);
            CheckedLock lock(m_mutex);
            m_changed.wait(lock, [this] {
                m_mutex.assumeHeld();
                return m_open == 0;
            });
        }
        natsSubscription_Destroy(m_subscription);
        natsConnection_Destroy(m_connection);
    }

    void subscribe() {
        natsInbox* made = nullptr;
        natsStatus status = natsInbox_Create(&made);
        const std::unique_ptr<natsInbox, Destroy<natsInbox_Destroy>> inbox(made);
        if (status == NATS_OK) {
            m_inbox = made;
            status = natsConnection_Subscribe(&m_subscription, m_connection,
                                              (m_inbox + ".*").c_str(), onAnswer, this);
        }
        if (status == NATS_OK) {
            status = natsSubscription_SetOnCompleteCB(m_subscription, onEnd, this);
        }
        if (status == NATS_OK) {
            const CheckedLock lock(m_mutex);
            ++m_open;
        } else {
            m_error = lastError(status);
            natsConnection_Close(m_connection);
        }
    }

    static void onAnswer(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                         natsMsg* received, void* self) {
        const Message answer(received);
        auto& connection = *static_cast<Connection*>(self);
        const std::string_view subject = natsMsg_GetSubject(received);
        const char* ticket = subject.data() + subject.rfind('.') + 1;
        const auto take = [&] {
            auto [fate, reason] = fateOf(received);
            connection.m_user.take(connection.m_number, std::strtoull(ticket, nullptr, 10), fate,
                                   std::move(reason));
        };
        if (!survive(take)) {
            connection.m_user.halt(connection.m_number);
        }
    }
    static void onClosed(natsConnection* /*closed*/, void* self) {
        auto& connection = *static_cast<Connection*>(self);
        survive([&] { connection.m_user.lost(connection.m_number); });
        connection.countEnd();
    }
    static void onEnd(void* self) { static_cast<Connection*>(self)->countEnd(); }

    void countEnd() {
        const CheckedLock lock(m_mutex);
        --m_open;
        m_changed.notify_all();
    }

    const u64 m_number;
    IConnectionUser& m_user;
    natsConnection* m_connection = nullptr;
    natsSubscription* m_subscription = nullptr;
    std::string m_inbox;
    std::string m_error;
    bool m_isRefused = false;

    CheckedMutex m_mutex;
    std::condition_variable m_changed;
    int m_open ANALYTICS_GUARDED_BY(m_mutex) = 1; // ends that the library has yet to tell
};

// Throws nlohmann::json::exception where the answer has another form. Returns the reason why the
// server cannot say whether a stream takes the subject; empty: one does.
std::string readStreamNames(const nlohmann::json& answer, const std::string& subject) {
    const nlohmann::json error = answer.value("error", nlohmann::json::object());
    const std::string why = textOf(error);
    constexpr int notNow = 503;
    if (error.value("code", 0) == notNow) {
        return why;
    }
    if (!error.empty()) {
        throw std::runtime_error("NATS: no stream takes " + subject + ": " + why);
    }
    if (answer.value("total", 0) == 0) {
        throw std::runtime_error("NATS: no stream takes the subject " + subject);
    }
    return {};
}

// Asks for the names of streams that take the subject.
void askForStream(natsConnection* connection, const std::string& subject) {
    const std::string question = nlohmann::json{{"subject", subject}}.dump();
    natsMsg* received = nullptr;
    const natsStatus status = natsConnection_RequestString(
        &received, connection, "$JS.API.STREAM.NAMES", question.c_str(), questionMs);
    const Message answer(received);
    std::string why = status == NATS_OK ? "" : natsStatus_GetText(status);
    try {
        why = status == NATS_OK ? readStreamNames(jsonOf(received), subject) : why;
    } catch (const nlohmann::json::exception&) {
        why = notJson;
    }
    if (!why.empty()) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "NATS: no server says whether a stream takes " << subject << ": " << why
            << std::endl;
    }
}

// One thread publishes, so that nobody else waits for the network. A connection is given up at the
// first trouble: what is still in its buffers does not come after what is sent again.
class NatsSink final : public ISink, public IConnectionUser {
public:
    explicit NatsSink(NatsSettings settings)
        : m_settings(std::move(settings)), m_options(makeOptions(m_settings)) {
        connect();
        if (m_connection->isOpen()) {
            askForStream(m_connection->get(), m_settings.subject);
        } else if (m_connection->isRefused()) {
            throw std::runtime_error("NATS: " + withoutSecrets(m_settings.urls) + ": " +
                                     m_connection->error());
        } else {
            LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                << "NATS: " << withoutSecrets(m_settings.urls) << ": " << m_connection->error()
                << std::endl;
        }
    }
    ~NatsSink() override {
        {
            const CheckedLock lock(m_mutex);
            m_isOver = true;
            m_inFlight.clear(); // nobody is answered any more
            m_queue.clear();
        }
        m_changed.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    NatsSink(const NatsSink&) = delete;
    NatsSink& operator=(const NatsSink&) = delete;

    const char* name() const override { return "NATS"; }

    void start(IAnswers& answers) override {
        m_answers = &answers;
        m_thread = std::thread(&NatsSink::run, this);
    }

    void send(const std::vector<const Record*>& batch) override {
        std::map<u64, u64> inFlight;
        std::list<Item> items;
        for (const Record* record : batch) {
            inFlight.emplace(record->ticket, notPublished);
            items.push_back({record->ticket, record->id(), record->line});
        }
        {
            const CheckedLock lock(m_mutex);
            m_inFlight.merge(inFlight);
            m_queue.splice(m_queue.end(), items);
        }
        m_changed.notify_all();
    }

    void purge() override { giveUp("given up"); }

private:
    struct Item {
        u64 ticket;
        std::string id;
        std::string line;
    };
    static constexpr u64 notPublished = ~u64{0};

    void connect() {
        m_connection.reset();
        u64 number = 0;
        {
            const CheckedLock lock(m_mutex);
            number = ++m_current;
            m_isProven = false;
        }
        m_connection = std::make_unique<Connection>(m_options.get(), number, *this);
    }

    void run() {
        pthread_setname_np(pthread_self(), "nats");
        while (const std::optional<Item> item = next()) {
            if (!survive([&] { handle(*item); })) {
                const CheckedLock lock(m_mutex);
                m_isHalted = true; // nothing overtakes it
            }
        }
        m_connection.reset();
    }

    void handle(const Item& item) {
        if (!isUsable()) {
            connect();
        }
        if (m_connection->isOpen()) {
            publish(item);
        } else {
            fail(m_connection->number(), m_connection->error());
        }
    }

    // Of the present connection, which was not given up.
    bool isUsable() {
        const CheckedLock lock(m_mutex);
        return m_connection != nullptr && m_connection->number() == m_current &&
               m_connection->isOpen();
    }

    // The next to publish, once nothing that was published is overdue.
    std::optional<Item> next() {
        CheckedLock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] {
                m_mutex.assumeHeld();
                return m_isOver || (!m_queue.empty() && !m_isHalted && mayPublish());
            });
            if (m_isOver) {
                return std::nullopt;
            }
            std::optional<Item> item(std::move(m_queue.front()));
            m_queue.pop_front();
            const auto inFlight = m_inFlight.find(item->ticket);
            if (inFlight != m_inFlight.end()) { // else the answer of an earlier attempt has come
                inFlight->second = monotonicNs();
                return item;
            }
        }
    }

    // The first record of a connection goes alone: while a stream is without a leader, the next one
    // could refuse some and take those behind them.
    bool mayPublish() const ANALYTICS_REQUIRES(m_mutex) {
        const u64 oldestNs = m_inFlight.empty() ? notPublished : m_inFlight.begin()->second;
        return oldestNs == notPublished || (m_isProven && monotonicNs() < oldestNs + overdueNs);
    }

    void publish(const Item& item) {
        const natsStatus status =
            m_connection->publish(m_settings.subject, item.id, item.line, item.ticket);
        if (status == NATS_MAX_PAYLOAD) {
            take(m_connection->number(), item.ticket, Fate::Failed, "larger than the server takes");
        } else if (status != NATS_OK) {
            take(m_connection->number(), item.ticket, Fate::TryAgain, natsStatus_GetText(status));
        }
    }

    void take(u64 connection, u64 ticket, Fate fate, std::string reason) override {
        std::vector<Answer> answers(1);
        answers[0] = {ticket, fate, std::move(reason)};
        {
            const CheckedLock lock(m_mutex);
            // What an earlier connection refused is being sent again.
            if (fate != Fate::Delivered && connection != m_current) {
                return;
            }
            if (m_inFlight.erase(ticket) == 0) {
                return;
            }
            m_isHalted = m_isHalted || fate == Fate::TryAgain;
            m_isProven = m_isProven || (fate == Fate::Delivered && connection == m_current);
        }
        m_changed.notify_all();
        m_answers->answer(std::move(answers));
    }

    void halt(u64 connection) override {
        const CheckedLock lock(m_mutex);
        m_isHalted = m_isHalted || connection == m_current;
    }
    void lost(u64 connection) override { fail(connection, "the connection is lost"); }

    // Answers what is in flight; until the forwarder has noticed, nothing more is published.
    void fail(u64 connection, const std::string& reason) {
        std::vector<Answer> answers;
        {
            const CheckedLock lock(m_mutex);
            if (connection != m_current || m_inFlight.empty()) {
                return;
            }
            m_isHalted = true;
            answers = takeInFlight(reason);
        }
        m_answers->answer(std::move(answers));
    }

    void giveUp(const std::string& reason) {
        std::vector<Answer> answers;
        {
            const CheckedLock lock(m_mutex);
            answers = takeInFlight(reason);
            ++m_current;
            m_isProven = false;
            m_isHalted = false;
        }
        m_changed.notify_all();
        if (!answers.empty()) {
            m_answers->answer(std::move(answers));
        }
    }

    std::vector<Answer> takeInFlight(const std::string& reason) ANALYTICS_REQUIRES(m_mutex) {
        std::vector<Answer> answers;
        answers.reserve(m_inFlight.size());
        for (const auto& each : m_inFlight) {
            answers.push_back({each.first, Fate::TryAgain, reason});
        }
        m_inFlight.clear();
        m_queue.clear();
        return answers;
    }

    const NatsSettings m_settings;
    const Options m_options;
    IAnswers* m_answers = nullptr;
    std::unique_ptr<Connection> m_connection; // the thread's, once there is one

    CheckedMutex m_mutex;
    std::condition_variable m_changed;
    u64 m_current ANALYTICS_GUARDED_BY(m_mutex) = 0;       // connection that is not given up
    bool m_isProven ANALYTICS_GUARDED_BY(m_mutex) = false; // it has delivered a record
    bool m_isHalted ANALYTICS_GUARDED_BY(m_mutex) = false; // until the next purge
    bool m_isOver ANALYTICS_GUARDED_BY(m_mutex) = false;
    std::list<Item> m_queue ANALYTICS_GUARDED_BY(m_mutex);
    std::map<u64, u64> m_inFlight ANALYTICS_GUARDED_BY(m_mutex); // ticket, when it was published
    std::thread m_thread;
};

} // namespace

std::unique_ptr<ISink> makeNatsSink(const NatsSettings& settings) {
    return std::make_unique<NatsSink>(settings);
}
