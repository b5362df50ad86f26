// The program's entry: start-up, reading the command line and running the
// one mode it asks for.
#pragma once

// The whole program: returns the process exit status.
int VondralMain(int argc, char** argv);
