// The implementation of fmt, compiled once: Debian has it as headers and as a shared library only, the first of which
// is compiled anew in each file that formats a text, and the second a library more to load at each start of the tool.
#include <fmt/format-inl.h>

// What the headers promise to be compiled elsewhere.
namespace fmt {
inline namespace v9 {
namespace detail {
template auto thousands_sep_impl<char>(locale_ref) -> thousands_sep_result<char>;
template auto decimal_point_impl(locale_ref) -> char;
} // namespace detail
} // namespace v9
} // namespace fmt
