// The fixture of tests on streams: a started runtime whose memory is watched and whose reports are recorded, and a
// definition of odd sizes: 19 bytes a particle in three columns, and one constant.
#pragma once

#include <gtest/gtest.h>

#include "allocator_hook.h"
#include "definition.h"
#include "report_recorder.h"
#include "scoped_runtime.h"
#include "test_stream.h"

namespace Tessaly::Tests
{

class CStreamTest : public ::testing::Test
{
protected:
    CStreamTest()
    {
        m_Definition.Stored(Position, BaseType_Float3)
            .Stored(Life, BaseType_Float)
            .Constant(Colour, BaseType_Float4, CFloat4(0.25f, 0.5f, 0.75f, 1.0f))
            .Stored(Tag, BaseType_UByte3);
    }

    // Texts of the records of reports that are usual when the live count does not match the pages.
    static constexpr const char *kCountText = "realPCount == m_ParticleCount.Load()";

    CAllocatorHook m_Memory; // outlives all the others, so that it sees what they leave behind
    CScopedRuntime m_Runtime;
    CReportRecorder m_Reports;
    CDefinition m_Definition;
};

} // namespace Tessaly::Tests
