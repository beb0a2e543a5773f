// Which process has made a name, so that anybody who meets it later can prove whether that is over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace engine {

// A number alone proves nothing: another container has processes of its own, another machine that has the volume
// mounted too, and after a restart all are given again. What could not be found out is 0, and proves nothing either.
struct Maker {
    int64_t process = 0;  // as its namespace has it
    uint64_t begun = 0;   // when, in the kernel's ticks since it started
    uint64_t boot = 0;    // of this run of the kernel
    uint64_t space = 0;   // of the namespaces that process numbers and clocks belong to
    uint64_t machine = 0; // by what its firmware and its installation say; only root may read that
};

enum class MakerState { running, gone, unknown };

// This process.
const Maker &own_maker();

// Gone: a process of this machine that has ended, or of this machine before it was started again.
MakerState state_of(const Maker &maker, const Maker &self = own_maker());

// "<process>-<begun>-<boot>-<space>-<machine>", all but the first two in hexadecimal digits of a fixed number.
std::string text_of(const Maker &maker);
// Takes it off the front of a text, with the hyphen behind it. Nothing: there is none.
std::optional<Maker> take_maker(std::string_view &text);

} // namespace engine
