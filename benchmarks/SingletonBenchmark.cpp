#include "benchmarks/Benchmark.h"
#include "benchmarks/Boundary.h"
#include "common/infra/Singleton.h"

#include <atomic>

namespace {

std::atomic<IProbe*> rawPointer{nullptr};

void loadRaw(u64 times) {
    repeat(times, [] { keep(rawPointer.load(std::memory_order_acquire)); });
}

void ask(u64 times) {
    repeat(times, [] { keep(Singleton<IProbe, Probe>::instance()); });
}

void loadRawInLoop(u64 times) {
    for (u64 i = 0; i < times; ++i) {
        keep(rawPointer.load(std::memory_order_acquire));
    }
}

void askInLoop(u64 times) {
    for (u64 i = 0; i < times; ++i) {
        keep(Singleton<IProbe, Probe>::instance());
    }
}

void callCached(u64 times) {
    IProbe* probe = Singleton<IProbe, Probe>::instance();
    repeat(times, [probe] { keep(probe->value()); });
}

void askAndCall(u64 times) {
    repeat(times, [] { keep(Singleton<IProbe, Probe>::instance()->value()); });
}

std::vector<Result> compareAccess(const Settings& settings) {
    rawPointer = Singleton<IProbe, Probe>::instance();
    const auto samples = interleave({{"acquire load of a pointer", loadRaw},
                                     {"instance()", ask},
                                     {"instance(), other object", askAcrossBoundary},
                                     {"acquire load of a pointer", loadRawInLoop},
                                     {"instance(), in a loop", askInLoop},
                                     {"call through a cached pointer", callCached},
                                     {"instance()->call", askAndCall}},
                                    settings);
    Result inLoop = compare("Singleton::instance() in an empty loop", samples[4], samples[3],
                            Target::atMost(1.6));
    inLoop.note = "its branch and the loop's share what the baseline has for the loop's alone";
    return {inLoop,
            compare("Singleton::instance(), loop unrolled", samples[1], samples[0],
                    Target::atMost(1.6)),
            compare("Singleton::instance(), unrolled, other object", samples[2], samples[0],
                    Target::atMost(1.6)),
            compare("instance()->virtualCall()", samples[6], samples[5], Target::atMost(1.1))};
}

} // namespace

std::vector<Benchmark> singletonBenchmarks() {
    return {{"singleton", compareAccess}};
}
