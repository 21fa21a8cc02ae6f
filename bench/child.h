// A row runs in a process of its own, which starts as a new program does: no row meets the heap, the huge pages or the
// free lists that another one has left.
#pragma once

#include <functional>

#include "table.h"

namespace Bench
{

// Calls measure in a child process, and gives back what it has measured. Ends this program when the child fails.
SRowResult MeasureInChild(const SRow &row, const std::function<SRowResult()> &measure);

} // namespace Bench
