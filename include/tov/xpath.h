/* SPDX-License-Identifier: BSD-3-Clause */
/* The XPath builder: an error path built from the innermost node outwards while a handler unwinds
 * its walk of a data tree, with a short alias (ns1, ns2, ...) per namespace, then copied into an
 * error record with the namespace declarations as xmlns attributes.
 *
 *   XPathContext x = {0};
 *   xpath_context_init(&x);
 *   xpath_prepend(&x, "interface", "urn:a", names, values, 1);   -> ns1:interface[name = 'eth0']
 *   xpath_prepend(&x, "interfaces", "urn:a", NULL, NULL, 0);     -> ns1:interfaces/ns1:interface[...]
 *   xpath_to_tov_error(&x, &result->error);
 *   xpath_context_destroy(&x);
 *
 * Codes are errno numbers: 0, 22 (EINVAL) or 12 (ENOMEM). */
#ifndef TOV_XPATH_H
#define TOV_XPATH_H

#include <stdint.h>

#include "tov/codec.h"
#include "tov/export.h"
#include "tov/kor_hashmap.h"

typedef struct XPathContext {
    char *path;           /* steps joined by "/", no leading "/"; NULL until the first prepend */
    kor_hashmap *aliases; /* namespace -> alias ("ns1", ...), both owned */
} XPathContext;

TOV_BEGIN_DECLS

/* Prepares a zero-filled context. Returns kor_hashmap_create's code (0 for a null context). */
TOV_API int xpath_context_init(XPathContext *ctx);
/* Frees the path, the aliases and the map. NULL does nothing. */
TOV_API void xpath_context_destroy(XPathContext *ctx);
/* Puts the step `name` (prefixed with its namespace's alias when `ns` is not NULL, with the
 * predicate [k1 = 'v1' and k2 = 'v2'] when key_count is not 0) in front of the path. Key names
 * get no prefix and values are not escaped. 22 for a null context or name, a missing key array,
 * or a text or path that would reach TOV_STR_MAX; 12 when memory runs out. A failure leaves the
 * path unchanged (an alias registered on the way stays). */
TOV_API int xpath_prepend(XPathContext *ctx, const char *name, const char *ns, const char *const *key_names,
                          const char *const *key_values, uint32_t key_count);
/* Copies the path into error->error_path's value (present even when it is NULL, for an empty
 * context or a copy that failed) and one xmlns:<alias> = <namespace> attribute per alias, in the
 * map's own order, into its attributes. 22 when the error already has a path value or
 * attributes, 12 when memory runs out (the value may already be set). */
TOV_API int xpath_to_tov_error(XPathContext *ctx, Error *error);

TOV_END_DECLS

#endif
