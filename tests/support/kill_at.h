// Runs a program and kills it before one of its system calls that change files.
#ifndef TESTS_SUPPORT_KILL_AT_H
#define TESTS_SUPPORT_KILL_AT_H

#include <string>
#include <vector>

// Kills the program (SIGKILL) when it asks for its n-th such call, from 1, which is not made.
// Returns false when it has ended by itself before.
bool kill_at_change(const std::vector<std::string>& arguments, int n);

#endif  // TESTS_SUPPORT_KILL_AT_H
