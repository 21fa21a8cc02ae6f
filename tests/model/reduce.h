// Makes failing scripts short.
#pragma once

#include <functional>

#include "operation.h"

namespace Tessaly
{
namespace Model
{

// Runs a script; returns what went wrong, or nothing.
using FnRun = std::function<std::string(const Script &)>;

// What goes wrong with the script and with the shortest that could be made of it, which is told, too; or nothing.
// Operations are left out and arguments set to 0 for as long as something still goes wrong, half a minute at most;
// TESSALY_MODEL_REDUCE sets other seconds.
std::string RunAndReduce(const Script &script, const FnRun &run);

} // namespace Model
} // namespace Tessaly
