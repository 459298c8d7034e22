// Order statistics of a handful of samples.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace tavrel::bench {

// The `q` quantile (0..1) of the samples, interpolated linearly between the two nearest
// ranks; `samples` must not be empty.
inline double quantile(std::vector<double> samples, double q) {
    std::sort(samples.begin(), samples.end());
    const double rank = q * static_cast<double>(samples.size() - 1);
    const size_t low = static_cast<size_t>(std::floor(rank));
    const size_t high = static_cast<size_t>(std::ceil(rank));
    return samples[low] + (samples[high] - samples[low]) * (rank - static_cast<double>(low));
}

inline double median(std::vector<double> samples) {
    return quantile(std::move(samples), 0.5);
}

inline double minimum(const std::vector<double>& samples) {
    return *std::min_element(samples.begin(), samples.end());
}

inline double maximum(const std::vector<double>& samples) {
    return *std::max_element(samples.begin(), samples.end());
}

}  // namespace tavrel::bench
