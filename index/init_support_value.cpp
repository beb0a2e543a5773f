// Asks for every service, so that the thread knows them all from one moment.
#include "index/index.h"

int VEXOInitSupportValue(void) {
    (void)VEXOPhotoServiceIsSupport();
    (void)VEXOMediaServiceIsSupport();
    (void)VEXOVideoServiceIsSupport();
    (void)VEXOPPhotoServiceIsSupport();
    return VEXOFileIndexIsSupport();
}
