// The version, at compile time and at run time. Two versions are compatible when their major numbers are equal and,
// while these are 0, their minor numbers too.
#pragma once

#include "tz_compiler.h"

// The version of these headers. CMake reads it here.
#define TZ_VERSION_MAJOR 0
#define TZ_VERSION_MINOR 1
#define TZ_VERSION_PATCH 0

namespace Tessaly
{

// A version of the headers or of the library.
struct SVersion
{
    int m_Major;
    int m_Minor;
    int m_Patch;
};

constexpr SVersion kHeadersVersion = {TZ_VERSION_MAJOR, TZ_VERSION_MINOR, TZ_VERSION_PATCH};

// The version of the library that the program is linked with.
TZ_API SVersion LibraryVersion();

// Compares the version of the headers that the caller was compiled with to that of the library it is linked with. Call
// it without an argument, before anything else.
// Returns: whether the two are compatible; false is reported with both versions.
TZ_API bool CheckVersion(SVersion headers = kHeadersVersion);

} // namespace Tessaly
