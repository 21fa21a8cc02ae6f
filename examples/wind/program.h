#pragma once
// The program behind its entry point: reads the command line, plays a run, writes the pictures, reports.

#include "options.h"

#include <cstdio>

namespace Wind
{
enum EExit : int
{
    Exit_Success = 0,
    Exit_Failure = 1,  // an assertion was reported, or an output could not be written
    Exit_BadInput = 2, // the command line or the forecast: nothing was run, nothing written
};

// Returns the exit status. What goes wrong is told on `err`, in one line.
int RunProgram(int argc, const char *const *argv, std::FILE *out, std::FILE *err);
} // namespace Wind
