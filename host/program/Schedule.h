#pragma once

#include "common/Analytics/IAnalyticsSchedulingPolicy.h"
#include "common/Analytics/PeriodicAnalyticsGeneratorAbs.h"
#include "common/infra/TrackedAllocation.h"
#include "host/program/Options.h"
#include "host/services/TweaksFile.h"

#include <ctime>
#include <iosfwd>
#include <memory>

// Between reports, if neither the command line nor the tunables file says: a demonstration should
// not take a day.
constexpr u32 programIntervalSec = 5;

// Loads the tunables file, if there is one, and settles the interval: the command line's, else the
// file's, else the program's. Throws TweaksFileError.
std::unique_ptr<TweaksFile> loadTweaks(const Options& options);

// The policy that the options ask for: the generator's own, by interval, or a weekly one.
TrackedPtr<IAnalyticsSchedulingPolicy> makePolicy(const Options& options,
                                                  PeriodicAnalyticsGeneratorAbs& generator);

// Writes the next moments at which reports fall due, from `now` on, in UTC and in local time. What
// it asks is the policy itself, with a clock that is moved from report to report.
void showSchedule(const Options& options, time_t now, std::ostream& out);
