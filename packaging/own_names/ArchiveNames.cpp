#include "ArchiveNames.h"

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// As small as can be: where a template made for one of the library's were taken for these, or the
// other way round, their objects would lie elsewhere. What has a body outside its class would be
// defined twice, and ends the process if the library enters it.
struct Answer {
    char one = 1;
};
struct Record {
    char one = 1;
};
struct Expiry {
    char one = 1;
    void failed();
};
struct FileDescriptor {
    explicit FileDescriptor(int value) : one(static_cast<char>(value)) {}
    FileDescriptor(FileDescriptor&& other) noexcept : one(std::exchange(other.one, '\0')) {}
    ~FileDescriptor() { one = 0; }
    char one;
};
class Account {
public:
    void addDiscarded();
    std::uint64_t waiting() const;
};
class Window {
public:
    void settle(std::uint64_t ticket);
    bool hasRoom() const;
};
class Spool {
public:
    ~Spool();
    std::uint64_t untold();
};
class Courier {
public:
    ~Courier();
    void hurry();
};
class TimerQueue {
public:
    void clear() noexcept;
};
std::string escaped(std::string_view text);

void Expiry::failed() {
    std::abort();
}
void Account::addDiscarded() {
    std::abort();
}
std::uint64_t Account::waiting() const {
    std::abort();
}
void Window::settle(std::uint64_t /*ticket*/) {
    std::abort();
}
bool Window::hasRoom() const {
    std::abort();
}
Spool::~Spool() {
    std::abort();
}
std::uint64_t Spool::untold() {
    std::abort();
}
Courier::~Courier() {
    std::abort();
}
void Courier::hurry() {
    std::abort();
}
void TimerQueue::clear() noexcept {
    std::abort();
}
std::string escaped(std::string_view /*text*/) {
    std::abort();
}

int useOwnClasses() {
    constexpr int count = 100;
    std::vector<Answer> answers;
    std::vector<Expiry> expiries;
    std::vector<FileDescriptor> descriptors;
    std::deque<Record> records;
    std::map<std::uint64_t, Record> sorted;
    for (std::uint64_t i = 0; i < count; ++i) {
        answers.push_back({});
        expiries.push_back({});
        descriptors.emplace_back(1);
        records.push_back({});
        sorted[i] = {};
    }
    int sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum +=
            answers[i].one + expiries[i].one + descriptors[i].one + records[i].one + sorted[i].one;
    }
    return sum;
}
