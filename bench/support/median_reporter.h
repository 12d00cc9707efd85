// A console reporter that also keeps every repetition's time and counters,
// so that a benchmark's Finalize can print the medians and the ratios that
// its targets are about, after the usual table. With
// --benchmark_report_aggregates_only the repetitions never reach a
// reporter, only their aggregates: then the "median" aggregate stands in.
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
            if (run.error_occurred) continue;
            std::string name = run.run_name.function_name + "/" + run.run_name.args;
            if (run.run_type == Run::RT_Iteration) {
                Keep(run, &results_[name]);
            } else if (run.aggregate_name == "median") {
                Keep(run, &medians_[name]);
            }
        }
    }

protected:
    // Median over repetitions of a counter, or of ns per iteration when
    // the counter's name is empty; 0 when the benchmark did not run.
    // `name` is the function name, a slash and the arguments, if any.
    double Median(const std::string &name, const std::string &counter) const {
        const std::map<std::string, Result> &source =
            results_.count(name) != 0 ? results_ : medians_;
        auto it = source.find(name);
        if (it == source.end()) return 0;
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

    static void Keep(const Run &run, Result *r) {
        r->ns.push_back(run.GetAdjustedRealTime() * NsPer(run.time_unit));
        for (const auto &counter : run.counters) {
            r->counters[counter.first].push_back(counter.second.value);
        }
    }

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

    std::map<std::string, Result> results_;  // every repetition
    std::map<std::string, Result> medians_;  // the median aggregate alone
};

}  // namespace molkbench

#endif  // MOLK_BENCH_SUPPORT_MEDIAN_REPORTER_H
