#pragma once
// The program: reads the command line, runs the simulation, writes the pictures and prints the table.

#include "options.h"

#include <cstdio>

namespace Wind
{
enum EExit : int
{
    Exit_Success = 0,
    Exit_Failure = 1,  // an assertion was reported, or an output could not be written
    Exit_BadInput = 2, // bad command line, forecast or snapshot; nothing was written
};

// Returns the exit status. An error is printed to err, in one line.
int RunProgram(int argc, const char *const *argv, std::FILE *out, std::FILE *err);
} // namespace Wind
