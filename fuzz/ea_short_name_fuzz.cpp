// Shortening a name. Input: the limit, the name.
#include "ea/names/short_name.h"
#include "fuzz/input.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const size_t limit = 1u + input.byte();
    const std::string before = input.rest();
    std::vector<char> name(before.begin(), before.end()); // of exactly its size, for the sanitizer
    const size_t length = vexo::shorten_base(name, limit);
    FUZZ_CHECK(length == (before.size() < limit ? before.size() : limit));
    const std::string after(name.begin(), name.begin() + static_cast<ptrdiff_t>(length));
    if (before.size() <= limit) {
        FUZZ_CHECK(after == before);
        return 0;
    }
    // At least what neither the mark nor an extension takes is as it was, and a second time changes nothing.
    const size_t kept = limit > 7 ? limit - 7 : 0;
    FUZZ_CHECK(after.compare(0, kept, before, 0, kept) == 0);
    FUZZ_CHECK(vexo::shorten_base({name.data(), length}, limit) == length);
    return 0;
}
