// A fresh UUID from the daemon, of which it keeps no record.
#pragma once

#include "failure.h"

// Prints it on standard output.
exit_status print_fresh_uuid();
