// The version of the library, and its comparison with that of a host's headers.
#include <tz_version.h>

#include <tz_assert.h>

namespace Tessaly
{

SVersion LibraryVersion() { return kHeadersVersion; }

bool CheckVersion(SVersion headers)
{
    const SVersion library = LibraryVersion();
    const bool isCompatible =
        headers.m_Major == library.m_Major && (library.m_Major != 0 || headers.m_Minor == library.m_Minor);
    TZ_ASSERT_MESSAGE(isCompatible, "compiled against Tessaly %d.%d.%d, linked with Tessaly %d.%d.%d", headers.m_Major,
                      headers.m_Minor, headers.m_Patch, library.m_Major, library.m_Minor, library.m_Patch);
    return isCompatible;
}

} // namespace Tessaly
