/* SPDX-License-Identifier: BSD-3-Clause */
/* Export macro and C linkage guards shared by every public header. */
#ifndef TOV_EXPORT_H
#define TOV_EXPORT_H

#if defined(TOV_BUILDING_LIBRARY)
#define TOV_API __attribute__((visibility("default")))
#else
#define TOV_API
#endif

#ifdef __cplusplus
#define TOV_BEGIN_DECLS extern "C" {
#define TOV_END_DECLS }
#else
#define TOV_BEGIN_DECLS
#define TOV_END_DECLS
#endif

#endif
