// The layout of the records of the store and of the platform, frozen: callers and platforms in any language bind to it.
// The stream header on disk is in ea/stream/format.h, the records of the copy engine in copy/engine/record_layout.cpp.
#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"

#include <cstddef>

static_assert(sizeof(VEXOEASRecord) == 24);
static_assert(offsetof(VEXOEASRecord, offset) == 0);
static_assert(offsetof(VEXOEASRecord, length) == 4);
static_assert(offsetof(VEXOEASRecord, flags) == 8);
static_assert(offsetof(VEXOEASRecord, nameLength) == 10);
static_assert(offsetof(VEXOEASRecord, name) == 16);

static_assert(sizeof(VEXOEAS) == 144);
static_assert(offsetof(VEXOEAS, header) == 0);
static_assert(offsetof(VEXOEAS, records) == 120);
static_assert(offsetof(VEXOEAS, fd) == 128);
static_assert(offsetof(VEXOEAS, capacity) == 132);
static_assert(offsetof(VEXOEAS, lockState) == 136);

static_assert(sizeof(VEXOEAAdoubleEntry) == 16);
static_assert(offsetof(VEXOEAAdoubleEntry, offset) == 0);
static_assert(offsetof(VEXOEAAdoubleEntry, length) == 8);

static_assert(sizeof(VEXOEAAdouble) == 1352);
static_assert(offsetof(VEXOEAAdouble, magic) == 0);
static_assert(offsetof(VEXOEAAdouble, version) == 4);
static_assert(offsetof(VEXOEAAdouble, entries) == 8);
static_assert(offsetof(VEXOEAAdouble, raw) == 328);

static_assert(sizeof(VLIBCStat) == 168);
static_assert(offsetof(VLIBCStat, st) == 0);
static_assert(offsetof(VLIBCStat, attributes) == 144);
static_assert(offsetof(VLIBCStat, createTime) == 152);

static_assert(sizeof(VLIBCSzList) == 16);
static_assert(offsetof(VLIBCSzList, capacity) == 0);
static_assert(offsetof(VLIBCSzList, count) == 4);
static_assert(offsetof(VLIBCSzList, items) == 8);

static_assert(sizeof(VEXOShare) == 24);
static_assert(offsetof(VEXOShare, name) == 0);
static_assert(offsetof(VEXOShare, path) == 8);
static_assert(offsetof(VEXOShare, status) == 16);

static_assert(sizeof(VEXOHomeCheckResult) == 32);
static_assert(offsetof(VEXOHomeCheckResult, kind) == 0);
static_assert(offsetof(VEXOHomeCheckResult, uid) == 4);
static_assert(offsetof(VEXOHomeCheckResult, gid) == 8);
static_assert(offsetof(VEXOHomeCheckResult, user) == 16);
static_assert(offsetof(VEXOHomeCheckResult, home) == 24);
