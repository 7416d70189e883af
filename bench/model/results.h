/** @file What came of a simulation, as JSON. */
#ifndef BENCH_MODEL_RESULTS_H
#define BENCH_MODEL_RESULTS_H

#include "bench/model/fleet.h"

#include <json/value.h>

namespace tarn::fleet {

Json::Value ResultsOf(const Parameters& parameters, const Fleet& fleet);

} // namespace tarn::fleet

#endif
