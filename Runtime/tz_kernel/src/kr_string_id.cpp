// Registered names: a lock-free linked list. Names are added at its head by compare and exchange.
#include "../include/kr_string_id.h"

#include <cstring>

#include "../include/kr_mem.h"

namespace Tessaly::Internal
{

// The text follows the record in the same block.
struct SRegisteredName
{
    SRegisteredName *m_Next;
    const char *m_Text;
    u32 m_Id;
};

SRegisteredName *g_RegisteredNames = null; // the debugger's script uses this name

} // namespace Tessaly::Internal

namespace Tessaly
{

using Internal::g_RegisteredNames;
using Internal::SRegisteredName;

namespace
{

SRegisteredName *FirstName() { return __atomic_load_n(&g_RegisteredNames, __ATOMIC_ACQUIRE); }

const SRegisteredName *Find(const SRegisteredName *first, CStringId id)
{
    while (first != null && first->m_Id != id.m_Id)
        first = first->m_Next;
    return first;
}

SRegisteredName *MakeName(CStringId id, const char *text)
{
    const size_t textBytes = std::strlen(text) + 1;
    void *block = Mem::_RawAlloc(sizeof(SRegisteredName) + textBytes, 0, Mem::AllocType_Generic, Mem::Origin_Alloc,
                                 Mem::kDefaultTag, __FILE__, __LINE__, TZ_FUNCTION_SIGNATURE);
    if (block == null)
        return null;
    char *copy = static_cast<char *>(block) + sizeof(SRegisteredName);
    std::memcpy(copy, text, textBytes);
    return Mem::Construct<SRegisteredName>(block, SRegisteredName{null, copy, id.m_Id});
}

void FreeName(SRegisteredName *name)
{
    Mem::_RawFree(name, Mem::AllocType_Generic, Mem::Origin_Alloc, Mem::kDefaultTag, __FILE__, __LINE__,
                  TZ_FUNCTION_SIGNATURE);
}

} // namespace

CStringId CStringId::Register(const char *text)
{
    if (!TZ_VERIFY_MESSAGE(text != null, "Register needs a text: null names nothing"))
        return CStringId();
    const CStringId id = FromText(text, TNumericTraits<u32>::kMax);
    SRegisteredName *first = FirstName(), *added = null;
    const SRegisteredName *known;
    while ((known = Find(first, id)) == null)
    {
        if (added == null && (added = MakeName(id, text)) == null)
            return id;
        added->m_Next = first;
        if (__atomic_compare_exchange_n(&g_RegisteredNames, &first, added, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            return id;
    }
    TZ_ASSERT_MESSAGE(std::strcmp(known->m_Text, text) == 0,
                      "the names \"%s\" and \"%s\" have the same id, %u: rename one of them", known->m_Text, text,
                      id.m_Id);
    if (added != null) // another thread registered the text meanwhile
        FreeName(added);
    return id;
}

void CStringId::UnregisterAll()
{
    SRegisteredName *name = __atomic_exchange_n(&g_RegisteredNames, null, __ATOMIC_ACQ_REL);
    while (name != null)
        FreeName(std::exchange(name, name->m_Next));
}

const char *CStringId::Text() const
{
    const SRegisteredName *name = Find(FirstName(), *this);
    return name != null ? name->m_Text : null;
}

} // namespace Tessaly
