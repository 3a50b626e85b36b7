#include "host/report/Program.h"

#include "host/report/Collector.h"
#include "host/report/ExitCodes.h"
#include "host/report/Figures.h"
#include "host/report/Follow.h"
#include "host/report/HtmlPage.h"
#include "host/report/Input.h"
#include "host/report/JsonReport.h"
#include "host/report/Progress.h"
#include "host/report/TextReport.h"

#include <unistd.h>

#include <iostream>
#include <stdexcept>

namespace report {

namespace {

// Throws InputError where the rest cannot be read; what was read before counts.
void readAll(Input& input, LineSplitter& lines) {
    Progress progress;
    for (;;) {
        char* const room = lines.room();
        const std::size_t count = input.read(room, lines.roomSize());
        if (count == 0) {
            return;
        }
        lines.bytesAdded(count);
        progress.at(input);
    }
}

// Returns whether the whole file could be read; if not, writes why to standard error.
bool readFile(const std::string& path, Collector& collector) {
    Input input(path);
    LineSplitter lines = collector.linesOf(input.name());
    bool isWhole = true;
    try {
        readAll(input, lines);
    } catch (const InputError& error) {
        isWhole = false;
        std::cerr << "analytics-report: " << error.what() << std::endl;
    }
    lines.finish();
    return isWhole;
}

void show(const Options& options, const Figures& figures) {
    std::cout << (options.isJson ? textOf(jsonOf(figures), 2) + "\n"
                                 : textOf(figures, isatty(STDOUT_FILENO) == 1));
    if (!std::cout.flush()) {
        throw std::runtime_error("cannot write to standard output");
    }
}

} // namespace

int run(const Options& options) {
    if (options.mustFollow) {
        return follow(options);
    }
    for (const std::string& file : options.files) {
        Input::check(file); // a wrong name is told before anything is read
    }
    if (!options.html.empty()) {
        checkPage(options.html);
    }
    Collector collector(options.choice);
    bool isWhole = true;
    for (const std::string& file : options.files) {
        isWhole = readFile(file, collector) && isWhole;
    }
    if (!options.html.empty()) {
        writePage(collector, options.html);
    }
    show(options, figuresOf(collector));
    return isWhole ? exitDone : exitFailed;
}

} // namespace report
