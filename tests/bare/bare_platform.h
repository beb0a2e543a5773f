// What the bare platform answers.
#pragma once

namespace bare {

extern int volumeType; // of every path

} // namespace bare
