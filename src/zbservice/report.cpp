// Tells the operator why the bus cannot do something.
#include "report.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace zb {

void report(const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    syslog(LOG_DAEMON | LOG_ERR, "zbservice: %s", line);
    (void)std::fprintf(stderr, "zbservice: %s\n", line);
}

}  // namespace zb
