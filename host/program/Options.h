#pragma once

#include "common/Analytics/FixedDaysSchedulingPolicy.h"
#include "common/infra/Defs.h"
#include "common/infra/Log.h"
#include "host/forwarding/NatsSink.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/forwarding/Spool.h"
#include "host/io/IoEngine.h"

#include <optional>
#include <string>
#include <vector>

// A report on these days at this hour (UTC).
struct WeeklySchedule {
    std::vector<FixedDaysSchedulingPolicy::Days> days;
    u32 hour = 0;
};

// Where the reports go beside the output or in its place. Texts that are empty: none.
struct ForwardingOptions {
    std::string hostId;  // empty: derived from the machine's id
    std::string service; // empty: the program's name
    std::string kafkaBrokers;
    std::string kafkaTopic;
    std::string kafkaConfig; // file of properties
    std::vector<std::string> kafkaProperties;
    NatsSettings nats;
    std::string prometheus; // address and port
    std::optional<SpoolOptions> spool;
    u32 shutdownTimeoutSecs = 5;

    bool hasEngine() const { return !kafkaBrokers.empty() || !nats.urls.empty(); }
};

// What the command line says.
struct Options {
    std::string path = ".";               // folder of the scratch file
    std::optional<u32> intervalSecs;      // between reports
    std::optional<WeeklySchedule> weekly; // in place of an interval
    u64 showSchedule = 0;                 // moments to print; 0: none, run
    u64 reports = 0;                      // to stop after; 0: none
    ParcelFormat format = ParcelFormat::Text;
    std::string outputFile; // empty: standard output, or none beside an engine
    std::string htmlFile;   // the page of the run; empty: none
    ForwardingOptions forwarding;
    std::string tweaksFile;    // empty: none
    u64 size = u64{64} << 20U; // bytes of the scratch file
    u64 blockSize = 4096;      // bytes of an I/O
    IoEngine::Kind ioEngine = IoEngine::Kind::Automatic;
    u32 queueDepth = 8;
    u32 readPercent = 70;
    u32 rate = 200;            // I/Os per second; 0: as fast as it goes
    std::optional<u64> maxIos; // to make in all
    std::string logFile;       // empty: standard error
    LogLevel logLevel = WarnLevel;
    bool abortOnAssert = false;
};

// Parses and checks the command line. Returns the options, or the code with which the process has
// to exit: 0 after --help and --version, 2 after one line on standard error that names what is
// wrong and what was expected.
struct ParsedCommandLine {
    std::optional<Options> options;
    int exitCode = 0;
};
ParsedCommandLine parseCommandLine(int argc, const char* const* argv);
