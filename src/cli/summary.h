// --summary: one JSON document about a backup or restore run, written when
// the run ends, whatever its status (docs/summary.md gives the format).
#pragma once

#include <ctime>
#include <string>

// The status a run that would have ended 0 ends with when its summary
// cannot be written: success is never reported without one.
constexpr int SummaryMissingStatus = 3;

// Starts the summary of the run the command line asks for: notes the start
// time and has EndRun (support/run_record.h) write the summary. Nothing
// without --summary, or in test and list mode.
void StartRunSummary(time_t start);

// The summary document of a run that ended with status at end.
std::string RunSummaryJson(int status, time_t start, time_t end);
