#ifndef CONTROLLER_WATCHVIEW_H_
#define CONTROLLER_WATCHVIEW_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "controller/WatchModel.h"

namespace screenctl {

enum class Style { Plain, Heading, Chosen, Good, Bad };

struct ViewLine {
    std::string text;  // exactly as many columns as the view has
    Style style = Style::Plain;
};

/// Around what the model holds.
struct Frame {
    std::string host;
    std::string status;  // safe to print
    size_t rows = 0;
    size_t columns = 0;
    std::chrono::steady_clock::time_point now{};
};

/// What a terminal of this size shows: a line for each of its rows.
std::vector<ViewLine> ViewOf(const WatchModel& model, const Frame& frame);

}  // namespace screenctl

#endif  // CONTROLLER_WATCHVIEW_H_
