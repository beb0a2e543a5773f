// Why something could not be done, on its way to whoever tells the user.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace engine {

// The words of a message, with the library's code where it has one.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string &words, uint32_t code = 0, int number = 0)
        : std::runtime_error(words), m_code(code), m_number(number) {}

    // The library's code, which the words name too, and the kernel's number; each 0 where it is not known.
    uint32_t code() const { return m_code; }
    int number() const { return m_number; }

  private:
    uint32_t m_code;
    int m_number;
};

// Another process came in between, nothing was changed, and doing it all again may work.
class Overtaken : public Failure {
  public:
    using Failure::Failure;
};

// "WHAT: " and the reason: the library's last error, else errno.
[[noreturn]] void throw_last_error(const std::string &what);
// The same for a negative result.
void check(int result, const std::string &what);
// "WHAT: " and what errno says, or that alone.
[[noreturn]] void throw_errno(const std::string &what);
[[noreturn]] void throw_errno();
// The same of something that could not be made in an open directory, whose volume may be full in two ways.
[[noreturn]] void throw_errno_in(int directory, const std::string &what);
// Before a call of which the last error is asked: a call that fails without one leaves what was there.
void forget_last_error();

// Throws for a path that is not there.
void check_there(const std::string &path);

} // namespace engine
