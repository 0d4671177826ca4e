// Numbers over time as a line of small bars.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A character for each number, from ▁ for the smallest to █ for the largest; · for 0.
std::string sparkline(const std::vector<double>& numbers);

// Adds the seconds from begin to end to those of the slots that divide the time from 0 to length.
// What lies outside is left out.
void add_to_slots(std::vector<double>& slots, int64_t begin, int64_t end, int64_t length);
