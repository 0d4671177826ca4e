// Two source units with a log state each. A place is all that a unit hands to the log facility.
#ifndef TESTS_LOG_UNITS_UNITS_H
#define TESTS_LOG_UNITS_UNITS_H

#include "ravo_log.h"

call_site place_in_unit_a();
call_site place_in_unit_b();

#endif  // TESTS_LOG_UNITS_UNITS_H
