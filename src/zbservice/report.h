// Tells the operator why the bus cannot do something.
#ifndef ZBSERVICE_REPORT_H
#define ZBSERVICE_REPORT_H

#include <string_view>

namespace zb {

// One line to the system log (facility daemon, level error) and to standard error.
[[gnu::format(printf, 1, 2)]] void report(const char* format, ...);

// Whether it is time for a line about this subject, which may be met with every call: there was
// none in this process for a minute. The last eight subjects are remembered.
bool is_due(std::string_view subject);

}  // namespace zb

#endif  // ZBSERVICE_REPORT_H
