/*
 * Record layouts of the trace store: the shared-memory object "/shmem_Trace"
 * and the SRAM file "/var/log/sram". Every process of the node, 32-bit or
 * 64-bit, maps these bytes, so each record is packed, built from fixed-width
 * fields only, and checked field by field below. Multi-byte fields are in the
 * node's byte order (little-endian), except the two time stamps of the entry
 * header, which are big-endian.
 *
 * The shared-memory object:
 *
 *      0  +--------------------------+
 *         | TraceMemoryHeader (28)   |
 *     28  +--------------------------+
 *         | reserved, 5 x 44 (zero)  |
 *    248  +--------------------------+
 *         | 200 x TraceSetStruct     |  indexed by trace set id 0..199
 *   9848  +--------------------------+
 *         | entry area, 0xA00000     |  data regions of the user sets,
 *         |                          |  handed out by nextFreeOffset
 * 10495608+--------------------------+
 *         | page padding             |  (mapping rounded up to pages)
 *         +--------------------------+
 *
 * The SRAM file: two regions of 153600 bytes.
 *
 *      0  version "1.4\0"
 *      4  TraceSetStruct "System"      (id 255), slots from 52, 738 x 208
 * 153600  TraceSetStruct "NVJ_System"  (id 254), slots from 153648, 738 x 208
 */
#ifndef NODETRACE_TRACE_LAYOUT_H
#define NODETRACE_TRACE_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

/* Trace set types. */
#define TS_STRING 0u /* entries are zero-terminated text, at most 128 bytes */
#define TS_DUMP 1u   /* entries are byte buffers, at most 1600 bytes */

/* Reserved trace set ids: the two persistent sets of the SRAM file. */
#define SYSTEM_TRACE_SET_ID 255        /* "System", the error trace set */
#define REMOTE_SYSTEM_TRACE_SET_ID 254 /* "NVJ_System", the remote unit's set */

/* Severities: one bit each. ERR, WAR and NOT form the error class that is
 * kept in the persistent error trace set. */
#define TRACE_SEVERITY_ERR 0x80u
#define TRACE_SEVERITY_WAR 0x40u
#define TRACE_SEVERITY_INF 0x20u
#define TRACE_SEVERITY_DBG 0x10u
#define TRACE_SEVERITY_NOT 0x08u
#define TRACE_SEVERITY_ERROR_CLASS 0xC8u

/* Category words of the records the library makes about itself. */
#define TRACE_CATEGORY_LIBRARY 0x80000001u
#define TRACE_CATEGORY_ASSERTION 0x80000002u

/* Results of the trace operations: 0 (or a count) is success. */
enum {
  TRACE_RC_TABLE_FULL = -2,     /* 200 user trace sets exist already */
  TRACE_RC_BAD_ARGUMENT = -3,   /* bad name or bad argument */
  TRACE_RC_NO_ROOM = -4,        /* no room left in the entry area */
  TRACE_RC_UNKNOWN_SET = -5,    /* unknown trace set id */
  TRACE_RC_FILE_ERROR = -6,     /* a file could not be read or written */
  TRACE_RC_TYPE_MISMATCH = -7,  /* the set has another type */
  TRACE_RC_SET_TOO_SMALL = -9,  /* the existing set is smaller than asked */
  TRACE_RC_NO_DESCRIPTOR = -10  /* the set's descriptor is not available */
};

/* Limits. */
#define TRACE_MAX_TRACE_SETS 200u
#define TRACE_SET_NAME_LENGTH 20u      /* compared over 20, stored with 19 */
#define TRACE_MAX_STRING_LENGTH 128u   /* TS_STRING contents */
#define TRACE_MAX_DUMP_LENGTH 1600u    /* TS_DUMP contents; reader buffers */
#define TRACE_FILE_NAME_LENGTH 30u     /* entry fileName, 29 characters */

/* The shared-memory object. */
#define TRACE_VERSION "1.4"
#define TRACE_MEMORY_HEADER_SIZE 28u
#define TRACE_RESERVED_SLOT_SIZE 44u
#define TRACE_RESERVED_SLOTS 5u
#define TRACE_DESCRIPTOR_SIZE 48u
#define TRACE_ENTRY_HEADER_SIZE 80u
#define TRACE_RESERVED_AREA_OFFSET 28u
#define TRACE_DESCRIPTOR_TABLE_OFFSET 248u
#define TRACE_ENTRY_AREA_OFFSET 9848u
#define TRACE_ENTRY_AREA_SIZE 0xA00000u
#define TRACE_MEMORY_NOMINAL_SIZE 10495608u

/* The SRAM file. */
#define TRACE_SRAM_REGION_SIZE 153600u
#define TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET 4u
#define TRACE_SRAM_SYSTEM_DATA_OFFSET 52u
#define TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET 153600u
#define TRACE_SRAM_REMOTE_DATA_OFFSET 153648u
#define TRACE_SRAM_MAX_ENTRIES 738u
#define TRACE_SRAM_SLOT_SIZE 208u

#define NODETRACE_RECORD __attribute__((packed, aligned(4)))

/* Header of the shared-memory object, at offset 0. */
typedef struct NODETRACE_RECORD TraceMemoryHeader {
  char version[4];                  /* "1.4" and a zero byte */
  uint32_t totalNumberTraceEntries; /* entries ever written; next sequence number */
  uint8_t currentNumberTraceSets;   /* user sets defined, 0..200 */
  uint8_t severityMask;             /* node-wide severity filter, initially 0xE8 */
  uint8_t unused0[2];
  uint32_t traceEnabled;            /* 1 enabled, 0 disabled */
  uint32_t nextFreeOffset;          /* first unowned byte of the entry area */
  uint16_t lastTraceSetId;          /* set of the newest entry, 0xFFFF: none yet */
  uint16_t lastEntryIndex;          /* slot of the newest entry */
  int32_t lockHolderTid;            /* holder of "traceMutex", 0: none */
} TraceMemoryHeader;

/* Trace set descriptor, in the shared descriptor table and in the SRAM file. */
typedef struct NODETRACE_RECORD TraceSetStruct {
  char name[20];                     /* at most 19 characters, zero-terminated */
  uint32_t type;                     /* TS_STRING or TS_DUMP */
  uint32_t categoryMask;             /* entries must share a bit with it */
  uint16_t maxNumberEntries;         /* ring capacity */
  uint16_t traceEntryContentsLength; /* maximum contents length of one entry */
  uint32_t creatorPid;
  uint32_t dataOffset;               /* slot 0: object offset, or file offset */
  uint16_t writeIndex;               /* slot of the next entry */
  uint16_t curentNumberEntries;      /* valid entries in the ring */
  uint32_t totalNumberEntries;       /* entries ever written to the set */
} TraceSetStruct;

/* A CLOCK_MONOTONIC or CLOCK_REALTIME reading, both words big-endian. */
typedef struct NODETRACE_RECORD TraceTimeStamp {
  uint32_t seconds;
  uint32_t nanoseconds;
} TraceTimeStamp;

/* Header of one slot; the contents follow at offset 80. */
typedef struct NODETRACE_RECORD TraceEntryHeader {
  char fileName[30];         /* base name of the source, byte 29 always zero */
  uint8_t unused0[2];
  int32_t line;
  uint32_t pid;
  uint8_t severity;
  uint8_t unused1[3];
  uint32_t category;
  uint32_t sequenceNumber;   /* node-wide numbering of all entries */
  uint32_t tid;
  TraceTimeStamp monotonicTime; /* big-endian */
  uint16_t contentsLength;
  uint16_t prevTraceSetId;   /* set of the entry written just before, 0xFFFF: none */
  uint16_t prevEntryIndex;   /* its slot */
  uint8_t unused2[2];
  TraceTimeStamp realTime;   /* big-endian */
} TraceEntryHeader;

#ifdef __cplusplus
#define NODETRACE_LAYOUT_ASSERT(condition) static_assert(condition, #condition)
#else
#define NODETRACE_LAYOUT_ASSERT(condition) _Static_assert(condition, #condition)
#endif

NODETRACE_LAYOUT_ASSERT(sizeof(TraceMemoryHeader) == 28);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, version) == 0);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, totalNumberTraceEntries) == 4);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, currentNumberTraceSets) == 8);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, severityMask) == 9);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, unused0) == 10);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, traceEnabled) == 12);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, nextFreeOffset) == 16);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, lastTraceSetId) == 20);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, lastEntryIndex) == 22);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceMemoryHeader, lockHolderTid) == 24);

NODETRACE_LAYOUT_ASSERT(sizeof(TraceSetStruct) == 48);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, name) == 0);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, type) == 20);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, categoryMask) == 24);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, maxNumberEntries) == 28);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, traceEntryContentsLength) == 30);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, creatorPid) == 32);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, dataOffset) == 36);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, writeIndex) == 40);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, curentNumberEntries) == 42);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceSetStruct, totalNumberEntries) == 44);

NODETRACE_LAYOUT_ASSERT(sizeof(TraceTimeStamp) == 8);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceTimeStamp, seconds) == 0);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceTimeStamp, nanoseconds) == 4);

NODETRACE_LAYOUT_ASSERT(sizeof(TraceEntryHeader) == 80);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, fileName) == 0);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, unused0) == 30);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, line) == 32);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, pid) == 36);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, severity) == 40);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, unused1) == 41);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, category) == 44);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, sequenceNumber) == 48);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, tid) == 52);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, monotonicTime) == 56);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, contentsLength) == 64);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, prevTraceSetId) == 66);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, prevEntryIndex) == 68);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, unused2) == 70);
NODETRACE_LAYOUT_ASSERT(offsetof(TraceEntryHeader, realTime) == 72);

/* The regions of the shared-memory object follow one another without gaps. */
NODETRACE_LAYOUT_ASSERT(TRACE_RESERVED_AREA_OFFSET == TRACE_MEMORY_HEADER_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_DESCRIPTOR_TABLE_OFFSET ==
                        TRACE_RESERVED_AREA_OFFSET + TRACE_RESERVED_SLOTS * TRACE_RESERVED_SLOT_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_ENTRY_AREA_OFFSET ==
                        TRACE_DESCRIPTOR_TABLE_OFFSET + TRACE_MAX_TRACE_SETS * TRACE_DESCRIPTOR_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_MEMORY_NOMINAL_SIZE == TRACE_ENTRY_AREA_OFFSET + TRACE_ENTRY_AREA_SIZE);
/* The SRAM regions hold 738 slots of 208 bytes behind their descriptor. */
NODETRACE_LAYOUT_ASSERT(TRACE_SRAM_SYSTEM_DATA_OFFSET ==
                        TRACE_SRAM_SYSTEM_DESCRIPTOR_OFFSET + TRACE_DESCRIPTOR_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_SRAM_REMOTE_DATA_OFFSET ==
                        TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET + TRACE_DESCRIPTOR_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_SRAM_MAX_ENTRIES ==
                        (TRACE_SRAM_REGION_SIZE - TRACE_DESCRIPTOR_SIZE) / TRACE_SRAM_SLOT_SIZE);
NODETRACE_LAYOUT_ASSERT(TRACE_SRAM_SYSTEM_DATA_OFFSET + TRACE_SRAM_MAX_ENTRIES * TRACE_SRAM_SLOT_SIZE <=
                        TRACE_SRAM_REMOTE_DESCRIPTOR_OFFSET);

#endif /* NODETRACE_TRACE_LAYOUT_H */
