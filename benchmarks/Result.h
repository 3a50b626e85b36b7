#pragma once

#include <optional>
#include <string>
#include <vector>

// Median and quartiles of repeated measurements.
struct Spread {
    double lower;
    double median;
    double upper;
};
Spread spreadOf(std::vector<double> values); // at least one

// What a figure is held against.
struct Target {
    enum Kind { Reported, AtMost, AtLeast };

    static Target reported() { return {Reported, 0}; }
    static Target atMost(double limit) { return {AtMost, limit}; }
    static Target atLeast(double limit) { return {AtLeast, limit}; }

    Kind kind;
    double limit;
};

// One row of the table. The target is about the ratio's median, or about our own figure where there
// is no ratio.
struct Result {
    std::string operation;
    std::string baseline; // empty: none
    std::string unit;     // of ours and of the baseline's
    double ours;          // median
    std::optional<double> theirs;
    std::optional<Spread> ratio;
    Target target;
    std::string note{}; // what a reader has to know about this measurement

    // Always, if the figure is only reported.
    bool isMet() const;
};

// The machine, then one line for each result, columns aligned; and the same as JSON.
std::string toTable(const std::string& machine, const std::vector<Result>& results);
std::string toJson(const std::string& machine, const std::vector<Result>& results);
