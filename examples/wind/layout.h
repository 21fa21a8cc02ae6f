#pragma once
// Which fields a particle has. There are two layouts: the one that the run starts with, and the one that it is edited
// into while it runs. Nobody else knows a field's index or whether it is stored: fields are found by name, frame by
// frame.

#include <tz_particles/include/Storage/MainMemory/storage_ram_stream.h>

#include <vector>

namespace Wind
{
using namespace Tessaly;

// A stream definition with the constant data that goes with it. A stream that it was bound to borrows all of it: the
// layout must outlive the stream.
class CLayout
{
public:
    void AddField(const char *name, EBaseTypeID type);
    void AddConstant(const char *name, EBaseTypeID type, const void *value);

    void BindTo(CParticleStream_MainMemory &stream) const;

private:
    SParticleStreamDef m_Definition;
    std::vector<CGuid> m_ConstantSlots; // one a field; invalid for a stored one
    std::vector<S64Bytes> m_Constants;
};

// The layout of the start: every particle carries its own tint, though all are born with the same.
void MakeFirstLayout(CLayout &outLayout);

// The edited layout: the speed moves into the position as a third component and leaves; the age is counted in whole
// frames; the tint, the same for all, becomes a constant; the way travelled is new; and the order is another.
void MakeEditedLayout(CLayout &outLayout, const CFloat3 &tint);

// Where the fields stand in a definition; invalid for one that it does not have.
struct SFields
{
    CGuid m_Position;         // degrees east and north; where there is a third component, it is the speed
    CGuid m_PreviousPosition; // a frame ago
    CGuid m_Speed;            // metres per second
    CGuid m_Age;              // frames, integer or float
    CGuid m_Lifetime;         // frames
    CGuid m_Brightness;
    CGuid m_Travelled; // kilometres
    CGuid m_Tint;      // colour and gain
    CGuid m_Fade;      // constant: how much of the life a particle takes to appear, and to vanish

    bool m_AgeIsInteger;
    bool m_TintIsStored;
};

SFields FindFields(const CParticleStream_MainMemory &stream);
} // namespace Wind
