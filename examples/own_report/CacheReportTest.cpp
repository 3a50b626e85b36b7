// A test of the report on the library's fakes. It makes the time itself: that of the timer, and the
// calendar's. Exit code 1 if a report is not what it should be.

#include "CacheReport.h"

#include "common/Analytics/PeriodicAnalyticsScheduler.h"
#include "host/testing/FakeServices.h"
#include "host/testing/ParcelText.h"

#include <iostream>
#include <string>

namespace {

// The schedule of the report, on a calendar that begins on a Friday at 5 o'clock and follows the
// fake timer.
class CalendarPolicy : public FixedDaysSchedulingPolicy {
public:
    CalendarPolicy(FakeTimer& timer)
        : FixedDaysSchedulingPolicy(createDaysFromString("mon,tue,wed,thu,fri"), 6),
          m_timer(timer) {}

private:
    tm getCurtime() override {
        const u64 hours = 5 * HOURS_IN_DAY + 5 + m_timer.getTimestampMs() / hoursToMs(1);
        tm time{};
        time.tm_hour = static_cast<int>(hours % HOURS_IN_DAY);
        time.tm_wday = static_cast<int>(hours / HOURS_IN_DAY % 7);
        return time;
    }

    FakeTimer& m_timer;
};

// The reports of a weekend, with the hours that have passed.
std::string reportsUntilMonday() {
    FakeServices services;
    CacheCounters counters;
    std::string reports;
    {
        const PeriodicAnalyticsScheduler scheduler(TRACKED_NEW(CalendarPolicy)(services.timer),
                                                   TRACKED_NEW(CacheReport)(counters));
        for (u64 hour = 1; hour <= 73; ++hour) {
            counters.hits += 2;
            counters.misses += 1;
            services.timer.advance(hoursToMs(1));
            if (const auto parcel = services.outbox.take()) {
                reports += std::to_string(hour) + " h: " + toText(*parcel) + '\n';
            }
        }
    }
    return reports + std::to_string(services.memShield.live()) + " blocks left\n";
}

constexpr auto expected =
    "1 h: CachePeriodicParcel/cache// account=1 priority=0 value=0 time=3600000"
    " u64:cd11=3600 u64:hits=2 u64:misses=1\n"
    "73 h: CachePeriodicParcel/cache// account=1 priority=0 value=0 time=262800000"
    " u64:cd11=259200 u64:hits=144 u64:misses=72\n"
    "0 blocks left\n";

} // namespace

int main() {
    const std::string reports = reportsUntilMonday();
    std::cout << reports;
    return reports == expected ? 0 : 1;
}
