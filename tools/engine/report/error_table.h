// What each error code means to a person: one table for messages, `vexofileop explain` and the manual page.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace engine {

struct ErrorInfo {
    uint32_t code;
    std::string_view reason; // a few words for a message, without a full stop
    std::string_view cause;  // when it happens, as a sentence
    std::string_view fix;    // what usually helps, as a sentence
};

// Every code of the library, ascending.
std::span<const ErrorInfo> error_table();

// The row of a code; null when there is none.
const ErrorInfo *find_error(uint32_t code);

// The reason of a code, with words for code 0 and for codes without a row too.
std::string_view reason_of(uint32_t code);

// A code as it is written everywhere: "0xA300".
std::string code_text(uint32_t code);

} // namespace engine
