// The process entry; everything else lives in the library the tests link.
#include "cli/vondral.h"

int main(int argc, char** argv) { return VondralMain(argc, argv); }
