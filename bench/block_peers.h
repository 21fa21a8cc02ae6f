// Allocators beside ours, in one process: the C library's own, and three that are loaded as plugins. None of them
// replaces malloc; each is called by pointers to its own functions.
#pragma once

#include <cstddef>
#include <vector>

namespace Bench
{

struct SBlockPeer
{
    const char *m_Name;
    void *(*m_Alloc)(size_t bytes);
    void (*m_Free)(void *block);
};

// All of them; loaded when first asked for, so that rows without them run without them. Ends the program when one
// can not be loaded, or is not what it is called.
const std::vector<SBlockPeer> &BlockPeers();

// Thread-local variables of plugins need static TLS space, which the loader reserves when a program starts: starts this
// program again with that space reserved, unless it is.
void ReserveTlsForBlockPeers(char **arguments);

} // namespace Bench
