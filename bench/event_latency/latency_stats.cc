#include "latency_stats.h"

#include <algorithm>
#include <cmath>

namespace kal::bench {

Distribution distribution(std::vector<int64_t> samples) {
    Distribution d;
    d.count = samples.size();
    if (samples.empty())
        return d;
    std::sort(samples.begin(), samples.end());
    const auto rank = [&](double p) {
        const auto r = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(d.count)));
        return samples[std::max<size_t>(r, 1) - 1];
    };
    d.p50 = rank(50);
    d.p99 = rank(99);
    d.max = samples.back();
    return d;
}

Spread spread(std::vector<double> values) {
    std::erase_if(values, [](double v) { return std::isnan(v); });
    Spread s;
    if (values.empty())
        return s;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    s.empty = false;
    s.min = values.front();
    s.max = values.back();
    s.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    return s;
}

void SequenceCheck::arrived(int64_t seq) {
    const auto count = static_cast<int64_t>(seen_.size());
    if (seq < 0 || seq >= count || seen_[static_cast<size_t>(seq)] || seq < highest_) {
        ++reordered_;
        if (seq >= 0 && seq < count)
            seen_[static_cast<size_t>(seq)] = true;
        return;
    }
    seen_[static_cast<size_t>(seq)] = true;
    highest_ = seq;
}

int64_t SequenceCheck::lost() const {
    return static_cast<int64_t>(std::count(seen_.begin(), seen_.end(), false));
}

}  // namespace kal::bench
