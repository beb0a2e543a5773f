// What a copy would lack by the kernel's and the platform's word alone, where nothing may be tried.
#pragma once

#include "tools/engine/compare/side.h"
#include "tools/engine/losses/loss.h"

#include <vector>

namespace engine {

// In the open directory `to`, of whose volume `volume` is known. `stores`: what is kept beside the source can go along.
std::vector<Loss> guess_losses(const Side &source, int to, const VolumeFacts &volume, bool stores);

} // namespace engine
