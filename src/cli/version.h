// The program's version, set once in the build, and the --version line.
#pragma once

// The version the build was made as ("1.0.0").
extern const char* const ProgramVersion;

// Writes "<program> <version> (<TLS library>)" to standard output; the TLS
// library is the one loaded at run time, which may differ from the one the
// program was built against.
void PrintVersion();
