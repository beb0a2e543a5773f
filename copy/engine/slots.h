// Setting a record's callback slots, for the setters: a null record or a null callback is refused and changes nothing.
#pragma once

#include "support/report.h"

namespace vexo {

// A slot with user data: both are stored together.
template <typename Record, typename Function>
int set_slot(Record *record, Function *Record::*slot, Function *function, void *Record::*dataSlot, void *data,
             Place place) {
    if (record == nullptr || function == nullptr) {
        return fail(Error::invalid_argument, place);
    }
    record->*slot = function;
    record->*dataSlot = data;
    return 0;
}

// A bare slot.
template <typename Record, typename Function>
int set_slot(Record *record, Function *Record::*slot, Function *function, Place place) {
    if (record == nullptr || function == nullptr) {
        return fail(Error::invalid_argument, place);
    }
    record->*slot = function;
    return 0;
}

} // namespace vexo
