// The exit statuses of ctar, and which one wins when several things went
// wrong in one run.
#pragma once

namespace ctar {

enum Status : int {
  StatusWhole = 0,        // success; for verify: the archive is whole
  StatusDamaged = 1,      // a CTAR archive, but not whole
  StatusNotArchive = 2,   // empty, a directory, compressed, or no CTAR header at its start
  StatusUnreadable = 3,   // cannot be opened or read
  StatusWriteFailed = 4,  // an output file or standard output could not be written
  StatusNotFound = 5,     // extract: a named entry is not in the archive
  StatusUsage = 64,       // the command line is wrong
};

// When several things went wrong the status names the one that matters most
// to the operator: a bad command line, then a failing disk, then a file that
// is no archive, then damage, and a missing name last.
int Worse(int a, int b);

}  // namespace ctar
