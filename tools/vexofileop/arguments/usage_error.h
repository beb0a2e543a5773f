// Why the arguments of a command make no sense together. Nothing has been done yet.
#pragma once

#include "tools/engine/report/invalid_request.h"

namespace tool {

class UsageError : public engine::InvalidRequest {
  public:
    using InvalidRequest::InvalidRequest;
};

} // namespace tool
