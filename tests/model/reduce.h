// Makes a failing script short.
#pragma once

#include <functional>

#include "operation.h"

namespace Tessaly
{
namespace Model
{

using FnFails = std::function<bool(const Script &)>;

// A short script that still fails: operations are left out and arguments set to 0 for as long as it does.
Script Reduce(Script script, const FnFails &fails);

} // namespace Model
} // namespace Tessaly
