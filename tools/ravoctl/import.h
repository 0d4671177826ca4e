// The rows of an export recorded again.
#pragma once

#include "command_line.h"

void declare_import(command_line& line);
