// The exported layout helpers and the page rounding of the mapping.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>

#include "nodetrace/nodetrace.h"
#include "trace/store/startup.h"

namespace {

TEST(Align32, RoundsUpToMultiplesOfFour) {
  EXPECT_EQ(align32(0), 0u);
  EXPECT_EQ(align32(1), 4u);
  EXPECT_EQ(align32(4), 4u);
  EXPECT_EQ(align32(5), 8u);
  EXPECT_EQ(align32(80), 80u);
}

TEST(GetTraceEntrySize, IsAlignedContentsPlusEntryHeader) {
  EXPECT_EQ(getTraceEntrySize(128), 208u);
  EXPECT_EQ(getTraceEntrySize(1600), 1680u);
  EXPECT_EQ(getTraceEntrySize(1), 84u);
  EXPECT_EQ(getTraceEntrySize(0), 80u);
  EXPECT_EQ(getTraceEntrySize(500), 580u);
}

TEST(GetTraceEntrySize, CountsOnlyTheLowSixteenBits) {
  EXPECT_EQ(getTraceEntrySize(0x10080), getTraceEntrySize(0x80));
  EXPECT_EQ(getTraceEntrySize(0x10080), 208u);
  EXPECT_EQ(getTraceEntrySize(-1), align32(0xFFFF) + 80u);
}

TEST(Gettid, IsTheKernelThreadId) {
  EXPECT_EQ(gettid(), getpid());  // the main thread's tid is the pid
}

TEST(MappingSize, RoundsTheNominalSizeUpToWholePages) {
  EXPECT_EQ(nt::mappingSizeFor(4096), 10498048u);
  EXPECT_EQ(nt::mappingSizeFor(4096), 0xA03000u);
  EXPECT_EQ(nt::mappingSizeFor(4096) - TRACE_MEMORY_NOMINAL_SIZE, 2440u);
  EXPECT_EQ(nt::mappingSizeFor(65536), 0xA10000u);
}

// The sizes and offsets of the regions and records are static_asserts of
// the layout header; what they do not cover is checked here: an SRAM slot is
// an entry of the text size as getTraceEntrySize computes it, and the
// records keep the four-byte alignment their packed attribute gives them.
TEST(RecordLayout, SramSlotsAndRecordAlignment) {
  EXPECT_EQ(TRACE_SRAM_MAX_ENTRIES, (153600u - 48u) / getTraceEntrySize(128));
  EXPECT_EQ(alignof(TraceEntryHeader), 4u);
  EXPECT_EQ(alignof(TraceSetStruct), 4u);
  EXPECT_EQ(alignof(TraceMemoryHeader), 4u);
}

}  // namespace
