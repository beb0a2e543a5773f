// What the scenes of files and of trees draw alike of a VEXOCopyOpt.
#pragma once

#include "copy/copy.h"

namespace model {

// The policy, without callbacks.
template <typename Scene>
VEXOCopyOpt policyOf(const Scene &scene) {
    VEXOCopyOpt opt = {};
    opt.overwrite = scene.overwrite;
    opt.move = scene.move;
    opt.ownerMode = scene.ownerMode;
    opt.copyAcl = scene.copyAcl;
    opt.cleanArchive = scene.cleanArchive;
    opt.uid = scene.uid;
    opt.gid = scene.gid;
    opt.eaFlags = scene.eaFlags;
    return opt;
}

} // namespace model
