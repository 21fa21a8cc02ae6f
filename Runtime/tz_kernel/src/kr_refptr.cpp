// The end of a reference-counted object.
#include "../include/kr_refptr.h"

namespace Tessaly
{

TZ_REPLACEABLE void CRefCountedObject::_DeleteObject(CRefCountedObject *object, void *memory)
{
    object->_DeleteObjectOrKeep(memory);
}

// Not inline: else the compiler would try it first in the service above, which is but a jump.
TZ_NOINLINE void CRefCountedObject::_DeleteObjectOrKeep(void *memory)
{
    this->~CRefCountedObject();
    Mem::_RawFree(memory, Mem::AllocType_Generic, Mem::Origin_New, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

} // namespace Tessaly
