#include "tools/vexofileop/output/json.h"

#include "tools/engine/report/names.h"
#include "tools/vexofileop/output/hex.h"

#include <json-c/json.h>
#include <new>

namespace tool {
namespace {

json_object *made(json_object *object) {
    return object != nullptr ? object : throw std::bad_alloc();
}

json_object *text_object(std::string_view text) {
    return made(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

} // namespace

void Json::Release::operator()(json_object *object) const {
    json_object_put(object);
}

Json::Json() : m_object(made(json_object_new_object())) {}

void Json::add_text(const char *name, std::string_view text) {
    json_object_object_add(m_object.get(), name, text_object(text));
}

void Json::add_name(const char *name, std::string_view fileName) {
    add_text(name, engine::as_utf8(fileName));
    if (!engine::is_utf8(fileName)) {
        add_text((std::string(name) + "_hex").c_str(), hex_digits(fileName));
    }
}

void Json::add_number(const char *name, int64_t number) {
    json_object_object_add(m_object.get(), name, made(json_object_new_int64(number)));
}

void Json::add_flag(const char *name, bool value) {
    json_object_object_add(m_object.get(), name, made(json_object_new_boolean(value ? 1 : 0)));
}

void Json::add_object(const char *name, Json &&object) {
    json_object_object_add(m_object.get(), name, object.m_object.release());
}

void Json::add_to_list(const char *name, Json &&object) {
    json_object *list = nullptr;
    if (json_object_object_get_ex(m_object.get(), name, &list) == 0) {
        list = made(json_object_new_array());
        json_object_object_add(m_object.get(), name, list);
    }
    json_object_array_add(list, object.m_object.release());
}

std::string Json::line() const {
    return json_object_to_json_string_ext(m_object.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

} // namespace tool
