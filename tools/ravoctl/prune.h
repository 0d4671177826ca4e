// Old rows deleted.
#pragma once

#include "command_line.h"

void declare_prune(command_line& line);
