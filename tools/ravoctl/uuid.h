// A fresh UUID from the daemon, of which it keeps no record.
#pragma once

#include "command_line.h"

void declare_uuid(command_line& line);
