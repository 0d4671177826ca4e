// Another source unit that logs.
#include "log_units/units.h"

call_site place_in_unit_b() { return HERE; }
