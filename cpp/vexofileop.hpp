// The C++ interface: everything of it. C++17, header only, over the C interface and with nothing to link beside it.
//
//     #include <vexofileop/vexofileop.hpp>
//
//     auto copied = vexofileop::copy_file("/volume1/video/film.mkv", "/volume2/backup/film.mkv",
//                                         vexofileop::CopyOptions().replace_existing());
//     if (!copied) {
//         std::cerr << copied.error().what() << "\n";
//     }
//     vexofileop::copy_tree("/volume1/photo", "/volume2/photo").value();   // or throws vexofileop::Error
//
// docs/cpp.md is the guide. Link with vexofileop::vexofileop (CMake) or what pkg-config says.
#pragma once

#include "cpp/apple_double.hpp" // IWYU pragma: export
#include "cpp/attributes.hpp"   // IWYU pragma: export
#include "cpp/copy.hpp"         // IWYU pragma: export
#include "cpp/result.hpp"       // IWYU pragma: export
#include "cpp/services.hpp"     // IWYU pragma: export
