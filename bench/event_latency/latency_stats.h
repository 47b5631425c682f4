#pragma once

// The arithmetic of the benchmark: percentiles of one run's latencies, the
// median and spread of several runs, and the loss and order of one line's
// events as one client saw them.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kal::bench {

struct Distribution {
    int64_t p50 = 0, p99 = 0, max = 0;
    size_t count = 0;
};

// Nearest-rank percentiles (the smallest sample with at least p% of the
// samples at or below it); all zero for no samples.
Distribution distribution(std::vector<int64_t> samples);

struct Spread {
    double median = 0, min = 0, max = 0;
    bool empty = true;
};

// Median (mean of the middle two for an even count), minimum and maximum;
// NaN entries (a figure a run could not measure) are left out.
Spread spread(std::vector<double> values);

// One client's view of one line: events numbered 0..count-1 are sent in
// order; each that never arrives is lost, each that arrives after a later
// one (or twice, or with a number never sent) is out of order.
class SequenceCheck {
  public:
    explicit SequenceCheck(int64_t count) : seen_(static_cast<size_t>(count), false) {}
    void arrived(int64_t seq);
    int64_t lost() const;
    int64_t reordered() const { return reordered_; }

  private:
    std::vector<bool> seen_;
    int64_t highest_ = -1;
    int64_t reordered_ = 0;
};

}  // namespace kal::bench
