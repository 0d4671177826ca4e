// Tells the operator why the bus cannot do something.
#ifndef ZBSERVICE_REPORT_H
#define ZBSERVICE_REPORT_H

namespace zb {

// One line to the system log (facility daemon, level error) and to standard error.
[[gnu::format(printf, 1, 2)]] void report(const char* format, ...);

}  // namespace zb

#endif  // ZBSERVICE_REPORT_H
