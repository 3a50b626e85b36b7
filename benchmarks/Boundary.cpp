#include "benchmarks/Boundary.h"

#include "benchmarks/Paired.h"
#include "common/infra/Singleton.h"

u64 Probe::value() {
    return 1;
}

void askAcrossBoundary(u64 times) {
    for (u64 i = 0; i < times; ++i) {
        keep(Singleton<IProbe, Probe>::instance());
    }
}
