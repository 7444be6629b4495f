// Built as part of the lowest folder: its own headers are in reach.
#include "shell/log.h"
