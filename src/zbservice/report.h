// Tells the operator why the bus cannot do something.
#pragma once

namespace zb {

// One line to the system log (facility daemon, level error) and to standard error.
[[gnu::format(printf, 1, 2)]] void report(const char* format, ...);

}  // namespace zb
