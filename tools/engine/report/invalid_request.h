// Why a request makes no sense. Nothing has been done yet.
#pragma once

#include <stdexcept>

namespace engine {

class InvalidRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace engine
