// The commands of ctar and the options they are given.
#pragma once

#include <vector>

namespace ctar {

struct Options {
  bool verbose = false;
  bool json = false;
  const char* directory = nullptr;
  std::vector<const char*> operands;
};

// Each gives the exit status of the run.
int ListCommand(const Options& options);
int VerifyCommand(const Options& options);
int ExtractCommand(const Options& options);
int SalvageCommand(const Options& options);

}  // namespace ctar
