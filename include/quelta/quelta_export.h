// SPDX-License-Identifier: Apache-2.0
/* Symbol visibility of libquelta's C interface. */
#ifndef QUELTA_EXPORT_H
#define QUELTA_EXPORT_H

#if defined(QUELTA_LAYER_BUILDING)
#define QUELTA_LAYER_API __attribute__((visibility("default")))
#else
#define QUELTA_LAYER_API
#endif

#endif
