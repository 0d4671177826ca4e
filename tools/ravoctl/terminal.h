// Standard output when a person looks at it: through a pager, and in colour.
#pragma once

#include "command_line.h"

// Whether a terminal shows what is printed, itself or through the pager.
bool is_shown_on_terminal();

// On a terminal, unless the environment has NO_COLOR or a TERM that knows no colours.
bool wants_colours();

// Declares --no-pager, which holds for the whole program.
void declare_pager_option(cli_command app);

void disable_pager();

// From now on a terminal shows the output through $PAGER, or less, or more. Does nothing for any
// other output, for a PAGER that is empty or "cat", and when told before. A pager that is left
// early is no failure.
void start_pager();

// Ends the output and waits for the pager. False when something could not be written.
bool finish_output();
