#pragma once
// The fields of a particle, in two layouts: one for the start of the run and an edited one. All other code finds the
// fields by name, in each frame.

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <vector>

namespace Wind
{
using namespace Tessaly;

// A stream definition, its constant data and its slot table. A stream that is bound to it borrows all three: the layout
// must outlive the stream.
class CLayout
{
public:
    void AddField(const char *name, EBaseTypeID type);
    void AddConstant(const char *name, EBaseTypeID type, const void *value);

    void BindTo(CParticleStream_MainMemory &stream) const;

private:
    SParticleStreamDef m_Definition;
    std::vector<CGuid> m_ConstantSlots; // one per field; INVALID for a stored field
    std::vector<S64Bytes> m_Constants;
};

// The first layout. Every particle stores its tint, although all tints are equal.
void MakeFirstLayout(CLayout &outLayout);

// The edited layout: the speed is dropped and becomes the third component of the position; the age becomes an integer;
// the tint becomes a constant; the distance travelled is new; the order of the fields is another.
void MakeEditedLayout(CLayout &outLayout, const CFloat3 &tint);

// The indices of the fields in a definition; INVALID for a field that it does not have.
struct SFields
{
    CGuid m_Position;         // degrees east and north; in the edited layout the third component is the speed
    CGuid m_PreviousPosition; // in the previous frame
    CGuid m_Speed;            // metres per second
    CGuid m_Age;              // frames, integer or float
    CGuid m_Lifetime;         // frames
    CGuid m_Brightness;
    CGuid m_Travelled; // kilometres
    CGuid m_Tint;      // colour and gain
    CGuid m_Fade;      // constant: the shares of its life in which a particle fades in and out

    bool m_AgeIsInteger;
    bool m_TintIsStored;
};

SFields FindFields(const CParticleStream_MainMemory &stream);
} // namespace Wind
