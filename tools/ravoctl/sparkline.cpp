// Numbers over time as a line of small bars.
#include "sparkline.h"

#include <algorithm>
#include <array>

std::string sparkline(const std::vector<double>& numbers) {
    static constexpr std::array bars = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const double largest = numbers.empty() ? 0 : *std::max_element(numbers.begin(), numbers.end());
    std::string line;
    for (const double number : numbers) {
        if (number <= 0) {
            line += "·";
            continue;
        }
        const auto height = static_cast<size_t>(number / largest * bars.size());
        line += bars[std::min(height, bars.size() - 1)];
    }
    return line;
}

void add_to_slots(std::vector<double>& slots, int64_t begin, int64_t end, int64_t length) {
    if (length <= 0) return;
    const double width = static_cast<double>(length) / static_cast<double>(slots.size());
    for (size_t n = 0; n < slots.size(); ++n) {
        const double from = std::max(static_cast<double>(begin), width * static_cast<double>(n));
        const double to = std::min(static_cast<double>(end), width * static_cast<double>(n + 1));
        slots[n] += std::max(to - from, 0.0);
    }
}
