#include "tools/engine/walk/letter_case.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <iterator>
#include <locale.h>

namespace engine {

std::string folded(const std::string &name) {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::wstring letters(name.size() + 1, L'\0');
    size_t count = static_cast<size_t>(-1);
    if (utf8 != nullptr) {
        const locale_t before = ::uselocale(utf8);
        count = std::mbstowcs(letters.data(), name.c_str(), letters.size());
        ::uselocale(before);
    }
    std::string key;
    if (count == static_cast<size_t>(-1)) { // no text
        std::ranges::transform(name, std::back_inserter(key), [](char letter) {
            return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
        });
        return key;
    }
    letters.resize(count);
    for (const wchar_t letter : letters) {
        key += std::to_string(::towlower_l(static_cast<wint_t>(letter), utf8)) + ' ';
    }
    return key;
}

} // namespace engine
