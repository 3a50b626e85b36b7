#pragma once

#include "common/infra/Export.h"
#include "host/forwarding/OutputFile.h"
#include "host/forwarding/ParcelFormat.h"
#include "host/forwarding/Sink.h"

// Writes records to a file or to standard output, as JSON lines or as text to read: one write for a
// batch. Each is answered within send(), which waits where the output is full but non-blocking.
class ANALYTICS_TAG OutputSink final : public ISink {
public:
    OutputSink(OutputFile& output, ParcelFormat format) : m_output(output), m_format(format) {}

    const char* name() const override { return "output"; }
    void start(IAnswers& answers) override { m_answers = &answers; }
    // A batch that cannot be written has failed for good. As text, records without a parcel are
    // nothing to write.
    void send(const std::vector<const Record*>& batch) override;
    void purge() override {}

private:
    std::string textOf(const std::vector<const Record*>& batch) const;

    OutputFile& m_output;
    const ParcelFormat m_format;
    IAnswers* m_answers = nullptr;
};
