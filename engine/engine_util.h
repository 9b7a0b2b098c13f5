// The engine's stages used to take their small helpers from here; they now
// live in support/ (row pointers, the size report). Kept so that sources
// still naming this header build; new code includes the support headers.
#ifndef SEGCORE_ENGINE_ENGINE_UTIL_H
#define SEGCORE_ENGINE_ENGINE_UTIL_H

#include "support/image_rows.h"
#include "support/size_check.h"

#endif
