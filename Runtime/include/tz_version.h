// The version, at compile time and at run time. Two versions are compatible when their major numbers are the same and,
// while these are 0, their minor numbers too.
#pragma once

#include "tz_compiler.h"

// These headers' version; CMake reads it here.
#define TZ_VERSION_MAJOR 0
#define TZ_VERSION_MINOR 1
#define TZ_VERSION_PATCH 0

namespace Tessaly
{

// The three numbers of a version.
struct SVersion
{
    // From the weightiest on.
    int m_Major;
    int m_Minor;
    int m_Patch;
};

// Of these headers.
constexpr SVersion kHeadersVersion = {TZ_VERSION_MAJOR, TZ_VERSION_MINOR, TZ_VERSION_PATCH};

// Of the library that the program is linked with.
TZ_API SVersion LibraryVersion();

// True when the headers that the caller was compiled against go with the library that it is linked with. A mismatch is
// reported with both versions. To be called without an argument, before anything else.
TZ_API bool CheckVersion(SVersion headers = kHeadersVersion);

} // namespace Tessaly
