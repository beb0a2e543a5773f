// Whether a name contains ":", which clients take for the separator of a stream's name.
#include "ea/ea.h"

#include <cstring>

int VEXOEAIsHiddenName(const char *name) {
    return name != nullptr && std::strchr(name, ':') != nullptr ? 1 : 0;
}
