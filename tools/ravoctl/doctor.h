// What keeps ravod from its work on this machine, and what to do about it.
#pragma once

#include "command_line.h"

void declare_doctor(command_line& line);
