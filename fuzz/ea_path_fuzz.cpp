// The paths of companions and the tests for hidden names. Input: name mode, kind, buffer length (2 bytes), path, NUL,
// stream name.
#include "ea/ea.h"
#include "fuzz/input.h"

#include <cstring>
#include <vector>

namespace {

// A buffer of exactly that size, for the sanitizer.
class Out {
  public:
    explicit Out(int size) : m_bytes(static_cast<size_t>(size), '?') {}
    char *data() { return m_bytes.data(); }
    // What a call that succeeded left is a string that fits.
    void check(int result, const std::string &begin, const std::string &end) const {
        FUZZ_CHECK(result == 0 || result == -1);
        if (result != 0) {
            return;
        }
        const size_t length = ::strnlen(m_bytes.data(), m_bytes.size());
        FUZZ_CHECK(length < m_bytes.size());
        const std::string text(m_bytes.data(), length);
        const bool whole = length + 1 < m_bytes.size();
        FUZZ_CHECK(text.compare(0, begin.size(), begin, 0, length) == 0);
        FUZZ_CHECK(!whole || text.ends_with(end));
    }

  private:
    std::vector<char> m_bytes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const int nameMode = input.byte() % 3;
    const int kind = input.byte() % 3;
    const int outLen = input.word() % 5000;
    const std::string path = input.text();
    const std::string stream = input.text();

    Out companion(outLen);
    const int result = VEXOEAPath(nameMode, path.c_str(), stream.c_str(), companion.data(), outLen, kind);
    companion.check(result, {}, kind == 0 ? stream : std::string());
    FUZZ_CHECK(kind != 2 || (result == -1 && VLIBCErrGet() == 0x0D00));
    Out directory(outLen);
    directory.check(VEXOEADirPath(nameMode, path.c_str(), directory.data(), outLen), {}, {});
    Out appleDouble(outLen);
    const size_t slash = path.find_last_of('/', path.size() < 2 ? 0 : path.size() - 2);
    const std::string parent = slash == std::string::npos || path == "/" ? std::string() : path.substr(0, slash + 1);
    appleDouble.check(VEXOEAADPath(path.c_str(), appleDouble.data(), outLen), parent + "._", {});

    for (const std::string &name : {path, stream}) {
        const int hidden = VEXOEAIsHiddenDir(name.c_str());
        FUZZ_CHECK(hidden == 0 || hidden == 1);
        FUZZ_CHECK(VEXOEAIsHiddenDirName(name.c_str()) <= hidden);
        FUZZ_CHECK(VEXOEAIsVetoFile(name.c_str()) >= hidden);
        FUZZ_CHECK(VEXOEAIsHiddenFile(name.c_str()) >= VEXOEAIsVetoFile(name.c_str()));
        FUZZ_CHECK(VEXOEAIsHiddenName(name.c_str()) == (name.find(':') == std::string::npos ? 0 : 1));
    }
    return 0;
}
