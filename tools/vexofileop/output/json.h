// The JSON of --json: one object on one line.
//
// A file name is any bytes, a JSON string is not. A name that is valid UTF-8 is its text; in any other one each byte
// that is no UTF-8 is shown as U+FFFD, and a second member with "_hex" behind its name holds the exact bytes in
// hexadecimal.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct json_object;

namespace tool {

class Json {
  public:
    Json();
    void add_text(const char *name, std::string_view text);
    void add_name(const char *name, std::string_view fileName);
    void add_number(const char *name, int64_t number);
    void add_flag(const char *name, bool value);
    void add_object(const char *name, Json &&object);
    // Appends to the list of that name, which begins empty.
    void add_to_list(const char *name, Json &&object);
    // Without a line feed.
    std::string line() const;

  private:
    struct Release {
        void operator()(json_object *object) const;
    };
    std::unique_ptr<json_object, Release> m_object;
};

} // namespace tool
