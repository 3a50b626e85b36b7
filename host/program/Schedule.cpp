#include "host/program/Schedule.h"

#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/Analytics/FixedFrequencySchedulingPolicy.h"
#include "common/infra/Tweaks.h"
#include "host/services/ReportInterval.h"

#include <iomanip>
#include <ostream>
#include <string>
#include <vector>

namespace {

u32 intervalSecs() {
    return Tweaks::instance()->uintVal(reportIntervalName, DefaultTweakValue<unsigned int>());
}

// A policy that reads the given clock in place of the system's.
template <typename Policy>
class PolicyAt : public Policy {
public:
    template <typename... Args>
    explicit PolicyAt(const time_t& now, const Args&... args) : Policy(args...), m_now(now) {}

protected:
    tm getCurtime() override {
        tm utc{};
        gmtime_r(&m_now, &utc);
        return utc;
    }

private:
    const time_t& m_now;
};

std::unique_ptr<IAnalyticsSchedulingPolicy> makePolicyAt(const time_t& now,
                                                         const Options& options) {
    if (options.weekly) {
        return std::make_unique<PolicyAt<FixedDaysSchedulingPolicy>>(now, options.weekly->days,
                                                                     options.weekly->hour);
    }
    return std::make_unique<PolicyAt<FixedFrequencySchedulingPolicy>>(now, intervalSecs());
}

void writeMoment(std::ostream& out, time_t moment) {
    tm utc{};
    tm local{};
    gmtime_r(&moment, &utc);
    localtime_r(&moment, &local);
    out << std::put_time(&utc, "%a %Y-%m-%d %H:%M:%S UTC") << "   "
        << std::put_time(&local, "%a %Y-%m-%d %H:%M:%S %Z") << "\n";
}

} // namespace

std::unique_ptr<TweaksFile> loadTweaks(const Options& options) {
    Tweaks::instance()->set(reportIntervalName,
                            std::to_string(options.intervalSecs.value_or(programIntervalSec)));
    if (options.tweaksFile.empty()) {
        return nullptr;
    }
    const std::vector<std::string> pinned(options.intervalSecs ? 1 : 0, reportIntervalName);
    auto file = std::make_unique<TweaksFile>(options.tweaksFile, pinned);
    file->load();
    return file;
}

TrackedPtr<IAnalyticsSchedulingPolicy> makePolicy(const Options& options,
                                                  PeriodicAnalyticsGeneratorAbs& generator) {
    if (!options.weekly) {
        return {generator.createPolicy(), TRACKED_DELETE};
    }
    return {TRACKED_NEW(FixedDaysSchedulingPolicy)(options.weekly->days, options.weekly->hour),
            TRACKED_DELETE};
}

void showSchedule(const Options& options, time_t now, std::ostream& out) {
    const auto policy = makePolicyAt(now, options);
    for (u64 i = 0; i < options.showSchedule; ++i) {
        now += static_cast<time_t>(policy->getNextSchedule() / OneSecondInMs);
        writeMoment(out, now);
    }
}
