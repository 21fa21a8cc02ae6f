#include "block_peers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <unistd.h>

namespace Bench
{

namespace
{

[[noreturn]] void Fail(const char *name, const char *reason)
{
    std::fprintf(stderr, "%s: %s\n", name, reason);
    std::exit(1);
}

// A function of the library itself, not of one that it is linked with.
void *OwnFunction(void *library, const char *libraryName, const char *name)
{
    void *function = dlsym(library, name);
    Dl_info info;
    if (function == nullptr || dladdr(function, &info) == 0 || std::strstr(info.dli_fname, libraryName) == nullptr)
        Fail(libraryName, "lacks a function of its own");
    return function;
}

SBlockPeer Load(const char *name, const char *libraryName, const char *alloc, const char *free)
{
    void *library = dlopen(libraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        Fail(name, dlerror());
    SBlockPeer peer = {name, nullptr, nullptr};
    void *const functions[] = {OwnFunction(library, libraryName, alloc), OwnFunction(library, libraryName, free)};
    std::memcpy(&peer.m_Alloc, &functions[0], sizeof(peer.m_Alloc));
    std::memcpy(&peer.m_Free, &functions[1], sizeof(peer.m_Free));
    return peer;
}

} // namespace

const std::vector<SBlockPeer> &BlockPeers()
{
    static const std::vector<SBlockPeer> peers = {
        {"glibc", &std::malloc, &std::free},
        Load("mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free"),
        Load("jemalloc", "libjemalloc.so.2", "malloc", "free"),
        Load("tcmalloc", "libtcmalloc_minimal.so.4", "tc_malloc", "tc_free"),
    };
    return peers;
}

void ReserveTlsForBlockPeers(char **arguments)
{
    static const char *const kName = "GLIBC_TUNABLES", *const kReserve = "glibc.rtld.optional_static_tls";
    const char *present = std::getenv(kName);
    const std::string tunables = present != nullptr ? present : "";
    if (tunables.find(kReserve) != std::string::npos)
        return;
    setenv(kName, (tunables + (tunables.empty() ? "" : ":") + kReserve + "=16384").c_str(), 1);
    // The end of the data segment stays the C library's alone.
    setenv("TCMALLOC_SKIP_SBRK", "true", 1);
    execv("/proc/self/exe", arguments);
    Fail("/proc/self/exe", "can not be started again");
}

} // namespace Bench
