#include "benchmarks/Boundary.h"

#include "benchmarks/Paired.h"
#include "common/infra/Singleton.h"

u64 Probe::value() {
    return 1;
}

void askAcrossBoundary(u64 times) {
    repeat(times, [] { keep(Singleton<IProbe, Probe>::instance()); });
}
