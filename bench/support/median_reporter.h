// A console reporter that also keeps every repetition's time and counters,
// so that a benchmark's Finalize can print the medians and the ratios that
// its targets are about, after the usual table.
#ifndef MOLK_BENCH_SUPPORT_MEDIAN_REPORTER_H
#define MOLK_BENCH_SUPPORT_MEDIAN_REPORTER_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace molkbench {

class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            Result &r = results_[run.run_name.function_name + "/" + run.run_name.args];
            r.ns.push_back(run.GetAdjustedRealTime() * NsPer(run.time_unit));
            for (const auto &counter : run.counters) {
                r.counters[counter.first].push_back(counter.second.value);
            }
        }
    }

protected:
    // Median over repetitions of a counter, or of ns per iteration when
    // the counter's name is empty; 0 when the benchmark did not run.
    // `name` is the function name, a slash and the arguments, if any.
    double Median(const std::string &name, const std::string &counter) const {
        auto it = results_.find(name);
        if (it == results_.end()) return 0;
        std::vector<double> v;
        if (counter.empty()) {
            v = it->second.ns;
        } else {
            auto c = it->second.counters.find(counter);
            if (c != it->second.counters.end()) v = c->second;
        }
        if (v.empty()) return 0;
        std::sort(v.begin(), v.end());
        size_t n = v.size();
        return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    }

private:
    struct Result {
        std::vector<double> ns;
        std::map<std::string, std::vector<double>> counters;
    };

    static double NsPer(benchmark::TimeUnit unit) {
        switch (unit) {
        case benchmark::kSecond:
            return 1e9;
        case benchmark::kMillisecond:
            return 1e6;
        case benchmark::kMicrosecond:
            return 1e3;
        default:
            return 1;
        }
    }

    std::map<std::string, Result> results_;
};

}  // namespace molkbench

#endif  // MOLK_BENCH_SUPPORT_MEDIAN_REPORTER_H
