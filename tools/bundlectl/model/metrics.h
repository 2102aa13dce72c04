#ifndef BUNDLECTL_MODEL_METRICS_H
#define BUNDLECTL_MODEL_METRICS_H

#include "status.h"

#include <string>
#include <utility>
#include <vector>

namespace Model {

/// One measured value.
struct MetricSample {
    using Labels = std::vector<std::pair<const char*, std::string>>;

    Labels labels;
    double value = 0;
};

/// All samples of one name.
struct Metric {
    std::string name; ///< without the "_total" of a counter
    bool isCounter = false;
    const char* help = "";
    std::vector<MetricSample> samples;
};

/// The facts of a snapshot as numbers. Counters begin with the running server's part of the log.
std::vector<Metric> MetricsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles, const Proc& proc);

} // namespace Model

#endif
