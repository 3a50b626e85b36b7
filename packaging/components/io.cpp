// Reads a file through the engine. Exit code 0 if the I/O succeeds and is counted.

#include "common/infra/Singleton.h"
#include "host/io/AlignedBuffer.h"
#include "host/io/IoEngine.h"
#include "host/services/StorageLatency.h"

#include <cstdio>

int main() {
    std::FILE* file = std::tmpfile();
    std::fputs("some bytes", file);
    std::fflush(file);

    const AlignedBuffer buffer(4096);
    IoRequest request;
    request.length = 10;
    request.buffer = buffer.data();
    request.completed = [](IoRequest&, int) {};

    IoEngine engine;
    IoEngine::Setup setup;
    setup.file = fileno(file);
    engine.open(setup);
    engine.submit(request);
    engine.close();
    const StoragePeriod period = Singleton<AIO, AIO>::instance()->latency().closePeriod();
    return !request.failed && period.maxUs > 0 && period.failedIos == 0 ? 0 : 1;
}
