/* Benchmarks of which medians and quartiles are reported. */
#pragma once

#include <functional>
#include <map>
#include <string>

#include <benchmark/benchmark.h>

namespace bench
{

// Nanoseconds for one operation.
struct Measure {
    double real = 0;
    double cpu = 0;       // of all threads
    double writerCpu = 0; // of the measuring task, where it was taken
};

// Registers a benchmark.
benchmark::internal::Benchmark *add(const std::string &name,
                                    std::function<void(benchmark::State &)> body);

// Collects the medians and prints them, with the quartiles, as each benchmark ends.
class Medians : public benchmark::ConsoleReporter
{
public:
    Medians() : ConsoleReporter(OO_Tabular) {} // without colours
    // nullptr: not measured.
    const Measure *find(const std::string &name) const;
    // Whether a benchmark gave up.
    bool failed() const { return failed_; }

    void ReportRuns(const std::vector<Run> &runs) override;

private:
    std::map<std::string, Measure> measures_;
    bool failed_ = false;
};

} // namespace bench
