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
                                     {"call through a cached pointer", callCached},
                                     {"instance()->call", askAndCall}},
                                    settings);
    return {compare("Singleton::instance()", samples[1], samples[0], Target::atMost(1.6)),
            compare("the same across a shared object's boundary", samples[2], samples[0],
                    Target::atMost(1.6)),
            compare("instance()->virtualCall()", samples[4], samples[3], Target::atMost(1.1))};
}

} // namespace

std::vector<Benchmark> singletonBenchmarks() {
    return {{"singleton", compareAccess}};
}
