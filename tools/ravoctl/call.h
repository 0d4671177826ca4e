// One raw call of a method, for looking at an endpoint by hand.
#pragma once

#include "command_line.h"

// Calls and prints the reply on standard output: byte for byte when raw, as text when it is
// printable, otherwise as a hex dump.
void declare_call(command_line& line);
