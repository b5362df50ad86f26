// The command line's options: the table they are defined by, reading them
// into the run-wide settings, and the usage text made from the table.
#pragma once

#include <cstddef>

// Reads every option of the command line into Settings. Collects every bad
// option before judging, so that an operator sees all mistakes at once.
// Returns 0, -1 (bad options), 1 (--help) or 2 (--version, given with no
// bad option). Arguments that are no option
// are left from optind on.
int ParseOptions(int argc, char** argv);

// Writes the usage text to standard error.
void Usage();
// Builds the short-option string from the option table into out.
void BuildShortOptions(char* out, size_t capacity);
