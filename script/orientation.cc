// Image orientation. The decision and the script sections join with the
// orientation work; until then the sensor keeps the orientation its mode
// sections give it.

#include "script/orientation.h"

BOOLEAN UpdateImageOrientation(DeviceContext*, BOOLEAN, BOOLEAN) { return TRUE; }
