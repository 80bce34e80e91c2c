// SPDX-License-Identifier: Apache-2.0
/* libquelta: the opt-in compass layer beside QueltaAlgo.so.
 *
 * Reentrant C interface over caller-owned state: no globals, no heap, any
 * number of independent instances. Each family has its own header; this one
 * gathers them and carries the version. */
#ifndef QUELTA_QUELTA_H
#define QUELTA_QUELTA_H

#include "quelta/quelta_export.h"
#include "quelta/quelta_geomag.h"
#include "quelta/quelta_compass.h"
#include "quelta/quelta_magnetic.h"

#define QUELTA_VERSION_MAJOR 0
#define QUELTA_VERSION_MINOR 1
#define QUELTA_VERSION_PATCH 0
#define QUELTA_VERSION_STRING "0.1.0"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of the library actually loaded, "MAJOR.MINOR.PATCH". */
QUELTA_LAYER_API const char* quelta_version(void);

#ifdef __cplusplus
}
#endif

#endif
