// What there is at a glance: the daemon, its tables, who is connected, the limiter.
#pragma once

#include "command_line.h"

void declare_status(command_line& line);
