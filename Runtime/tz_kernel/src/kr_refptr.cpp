// Destruction of reference-counted objects.
#include "../include/kr_refptr.h"

namespace Tessaly
{

TZ_REPLACEABLE void CRefCountedObject::_DeleteObject(CRefCountedObject *object, void *memory)
{
    object->~CRefCountedObject();
    Mem::_RawFree(memory, Mem::AllocType_Generic, Mem::Origin_New, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

} // namespace Tessaly
