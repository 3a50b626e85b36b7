#pragma once

#include "host/forwarding/Sink.h"
#include "host/report/Collector.h"

#include <string>
#include <string_view>
#include <vector>

// A sink beside the engine that adds the run's records up and shows them as a page when the run has
// ended. Its memory does not grow with the number of records.
class RunPage final : public ISink {
public:
    // Throws std::runtime_error, with path and reason, if the file cannot be written. What it holds
    // stays until write().
    explicit RunPage(std::string path);

    const char* name() const override { return "page"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    // Answers within the call. A batch that there is no memory for has failed for good; the page
    // then counts those of its records as missing that were not added.
    void send(const std::vector<const Record*>& batch) override;
    void purge() override {}

    // Writes the page of all records that were sent, once the forwarder has ended. Throws
    // std::runtime_error, with path and reason.
    void write() const;

private:
    void add(std::string_view line);

    const std::string m_path;
    report::Collector m_collector;
    report::LineSplitter m_lines;
    IAnswers* m_answers = nullptr;
};
