// Classes of losses on the command line.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/vexofileop/arguments/parser.h"

#include <string>

namespace tool {

// The option --accept.
Option add_accept_option(const Command &command);

// "owner,mode,acl": classes and groups, separated by commas. Throws UsageError, which names the known ones; `option` is
// where it was given: "--accept".
engine::LossSet loss_set_of(const std::string &names, const char *option);
// The same of all values of an option, which may be given several times.
engine::LossSet loss_set_of(const Option &option, const char *name);

} // namespace tool
