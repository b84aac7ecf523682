#include "medians.h"

#include <algorithm>

namespace bench
{
namespace
{

double quantile(std::vector<double> values, double part)
{
    auto index = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

} // namespace

benchmark::internal::Benchmark *add(const std::string &name,
                                    std::function<void(benchmark::State &)> body)
{
    return benchmark::RegisterBenchmark(name.c_str(), std::move(body))
        ->ComputeStatistics("q1", [](const std::vector<double> &v) { return quantile(v, 0.25); })
        ->ComputeStatistics("q3", [](const std::vector<double> &v) { return quantile(v, 0.75); });
}

const Measure *Medians::find(const std::string &name) const
{
    auto found = measures_.find(name);
    return found == measures_.end() ? nullptr : &found->second;
}

void Medians::ReportRuns(const std::vector<Run> &runs)
{
    std::vector<Run> shown;
    for (const Run &run : runs) {
        if (run.error_occurred) {
            failed_ = true;
            shown.push_back(run);
            continue;
        }
        bool only = run.run_type == Run::RT_Iteration && run.repetitions == 1;
        bool median = run.aggregate_name == "median";
        if (only || median || run.aggregate_name == "q1" || run.aggregate_name == "q3")
            shown.push_back(run);
        if (!only && !median)
            continue;
        double toNanoseconds = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
        Measure &measure = measures_[run.run_name.function_name];
        measure.real = run.GetAdjustedRealTime() * toNanoseconds;
        measure.cpu = run.GetAdjustedCPUTime() * toNanoseconds;
        if (auto counter = run.counters.find("writerCpu"); counter != run.counters.end())
            measure.writerCpu = counter->second;
    }
    ConsoleReporter::ReportRuns(shown);
}

} // namespace bench
