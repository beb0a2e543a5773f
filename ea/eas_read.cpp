// Reads an attribute's value, or a piece of it.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <cstdint>

using namespace vexo;

int VEXOEASRead(VEXOEAS *eas, const char *name, void *buf, uint32_t size, uint32_t offset) {
    if (!eas::is_open(eas) || name == nullptr || buf == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (!eas::is_locked(*eas)) {
        return fail(Error::permission, VEXO_HERE);
    }
    const int index = VEXOEASSearch(eas, name);
    if (index < 0) {
        return -1;
    }
    const VEXOEASRecord &record = eas->records[index];
    if (record.length < offset) {
        return 0;
    }
    if (size == 0 && record.length > INT32_MAX) {
        return fail(Error::invalid_argument,
                    VEXO_HERE); // no such value is ours, and the result could not tell its length
    }
    if (size == 0) {
        return static_cast<int>(record.length);
    }
    const uint32_t rest = record.length - offset;
    const uint32_t wanted = size < rest ? size : rest;
    const uint32_t count = wanted < INT32_MAX ? wanted : INT32_MAX;
    if (count == 0) {
        return 0;
    }
    if (!eas::seek_to(eas->fd, uint64_t{record.offset} + offset)) {
        return fail(Error::seek, VEXO_HERE);
    }
    if (!eas::read_all(eas->fd, buf, count)) {
        return fail(Error::read, VEXO_HERE);
    }
    return static_cast<int>(count);
}
