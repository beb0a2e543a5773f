// Which media services the appliance has: a row for each, read once in a thread.
#include "index/index.h"

#include "index/setting.h"

#include <array>
#include <cstddef>
#include <cstdint>

using namespace vexo;

namespace {

constexpr char kFactorySettings[] = "/etc.defaults/vexoinfo.conf";

enum class Service : size_t { photo, media, video, personal_photo, file_index };
constexpr std::array<const char *, 5> kKeys = {
    "supportphoto", "supportmediaservice", "supportreelhall", "supportphotopersonal", "supportfileindex",
};

constexpr int32_t kUnknown = -1;

// The initial-exec model keeps the dynamic loader out of the library's dependencies.
[[gnu::tls_model("initial-exec")]] constinit thread_local std::array<int32_t, kKeys.size()> answers = {
    kUnknown, kUnknown, kUnknown, kUnknown, kUnknown};

int is_supported(Service service) {
    const auto row = static_cast<size_t>(service);
    if (answers[row] == kUnknown) {
        answers[row] = read_setting(kFactorySettings, kKeys[row]) == Setting::on ? 1 : 0;
    }
    return answers[row] == 1 ? 1 : 0;
}

} // namespace

int VEXOPhotoServiceIsSupport(void) {
    return is_supported(Service::photo);
}

int VEXOMediaServiceIsSupport(void) {
    return is_supported(Service::media);
}

int VEXOVideoServiceIsSupport(void) {
    return is_supported(Service::video);
}

int VEXOPPhotoServiceIsSupport(void) {
    return is_supported(Service::personal_photo);
}

int VEXOFileIndexIsSupport(void) {
    return is_supported(Service::file_index);
}
