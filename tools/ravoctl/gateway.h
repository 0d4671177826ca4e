// The gateway setting of the global VPN options: shown, set, and one connection taken out of it.
#pragma once

#include "command_line.h"

void declare_gateway(command_line& line);
