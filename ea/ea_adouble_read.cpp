// Parses an AppleDouble header, wherever it was read from.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "support/report.h"

using namespace vexo;

int VEXOEAAdoubleRead(const void *buf, int len, VEXOEAAdouble *adouble) {
    if (adouble == nullptr || buf == nullptr || len < 0 || static_cast<size_t>(len) > adouble::kRecordSize) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const adouble::ParseResult result =
        adouble::parse({static_cast<const uint8_t *>(buf), static_cast<size_t>(len)}, *adouble);
    switch (result.status) {
    case adouble::ParseResult::not_apple_double:
        VEXO_LOG_ERROR(VEXO_HERE, "ad magic[%i] and ad version[%i] error", static_cast<int>(adouble->magic),
                       static_cast<int>(adouble->version));
        return fail(Error::read, VEXO_HERE);
    case adouble::ParseResult::bad_entry:
        VEXO_LOG_ERROR(VEXO_HERE, "AdoubleEntriesParse: wrong eid: %u, off: %u, len: %u", result.entry.id,
                       result.entry.offset, result.entry.length);
        return fail(Error::invalid_argument, VEXO_HERE);
    case adouble::ParseResult::ok:
        break;
    }
    return 0;
}
