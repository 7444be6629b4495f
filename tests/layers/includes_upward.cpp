// Built as part of the lowest folder: a header of a folder above it must not be found.
#include "bridge/bridge.h"
