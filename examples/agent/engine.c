/* SPDX-License-Identifier: BSD-3-Clause */
/* The sample management engine: three datastores as data trees, the NETCONF operations on them,
 * locks, confirmed commits and persistence. It answers through the library's request-result
 * functions, and builds the error path of a data error with the XPath builder. */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "agent.h"
#include "tov/gpb.h"
#include "tov/kor_alloc.h"
#include "tov/result.h"
#include "tov/xpath.h"

static const char *const kDatastoreNames[DS_COUNT] = {"running", "candidate", "startup"};
static const char *const kFileNames[DS_COUNT] = {"running.db", NULL, "startup.db"};
#define AGENT_NAMESPACE "urn:tov:agent"

enum { EDIT_DEFAULT_MERGE = 0, EDIT_DEFAULT_REPLACE = 1, EDIT_DEFAULT_NONE = 2 };
enum { TEST_THEN_SET = 0, SET_ONLY = 1, TEST_ONLY = 2 };
enum { STOP_ON_ERROR = 0, CONTINUE_ON_ERROR = 1, ROLLBACK_ON_ERROR = 2 };
#define EDIT_OP_NONE 100u /* default-operation none: navigate only */

/* ---- results ---- */

static uint32_t fail(RequestResult *result, uint32_t type, const char *tag, const char *message) {
    uint32_t rc = tov_req_result_error_set(result, type, TOV_ERROR_SEVERITY_ERROR, tag, message);
    return rc ? rc : AGENT_ERROR_SET;
}

/* error-info with one <session-id>, as lock-denied and in-use carry it */
static uint32_t fail_held(Engine *e, RequestResult *result, const char *tag, const char *message, uint32_t holder) {
    uint32_t rc = fail(result, TOV_ERROR_TYPE_PROTOCOL, tag, message);
    if (rc != AGENT_ERROR_SET) return rc;
    DataTree *info = tov_gpb_datatree_create(e->framework, 1);
    char id[16];
    snprintf(id, sizeof id, "%" PRIu32, holder);
    if (!info) return TOV_RC_NO_MEMORY;
    info->name = tree_strdup("session-id");
    info->value = tree_strdup(id);
    if (!info->name || !info->value) {
        kesh_tov_datatree_free_ext(info, tov_gpb_free, 0, 0);
        tov_gpb_free(info, 0);
        return TOV_RC_NO_MEMORY;
    }
    tov_bit_set(info->present, TOV_DATATREE_BIT_NAME);
    tov_bit_set(info->present, TOV_DATATREE_BIT_VALUE);
    rc = tov_req_result_error_info_set(result, info, 1);
    return rc ? rc : AGENT_ERROR_SET;
}

static int datastore_index(const Datastore *ds, int fallback) {
    if (!tov_bit_is_set(ds->present, TOV_DATASTORE_BIT_NAME) || !ds->name) return fallback;
    for (int i = 0; i < DS_COUNT; ++i)
        if (strcmp(ds->name, kDatastoreNames[i]) == 0) return i;
    return -1;
}

static uint32_t bad_datastore(RequestResult *result) {
    return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "Unknown datastore.");
}

/* Another session's lock on the datastore keeps this session from changing it. */
static uint32_t check_not_locked(Engine *e, RequestResult *result, int ds, const Session *s) {
    uint32_t holder = e->lock_holder[ds];
    if (holder && (!s || holder != s->session_id))
        return fail_held(e, result, "in-use", "The datastore is locked by another session.", holder);
    return 0;
}

static uint32_t save(Engine *e, int ds) {
    if (ds == DS_CANDIDATE) return 0;
    int rc = store_save(e->dir, kFileNames[ds], &e->ds[ds]);
    if (rc) AGENT_LOG(e->me, TOV_MSG_ERROR, TOV_DEBUG_OP_COUNT, "cannot save %s: %s", kDatastoreNames[ds], strerror(rc));
    return (uint32_t)rc;
}

/* Replaces datastore ds with a copy of src (or an empty tree) and saves it. */
static uint32_t replace_datastore(Engine *e, int ds, const DataTree *src) {
    DataTree copy;
    memset(&copy, 0, sizeof copy);
    if (src) {
        if (tree_copy(&copy, src) != 0) {
            tree_clear(&copy);
            return TOV_RC_NO_MEMORY;
        }
    }
    if (!copy.name) {
        copy.name = tree_strdup("data");
        if (!copy.name) {
            tree_clear(&copy);
            return TOV_RC_NO_MEMORY;
        }
    }
    tov_bit_set(copy.present, TOV_DATATREE_BIT_NAME);
    tree_clear(&e->ds[ds]);
    e->ds[ds] = copy;
    if (ds == DS_CANDIDATE) e->candidate_dirty = 1;
    if (ds == DS_RUNNING) e->candidate_dirty = 1; /* conservatively: running moved under it */
    return save(e, ds);
}

/* ---- the error path: the failing node and its ancestors, innermost first ---- */

typedef struct EditCtx {
    Engine *e;
    RequestResult *result;
    Response *response;
    int continue_on_error;
    uint32_t errors;
    const DataTree *stack[AGENT_MAX_DEPTH];
    int depth;
} EditCtx;

static const char *namespace_at(const EditCtx *c, int level) {
    for (int i = level; i >= 0; --i) {
        const DataTree *n = c->stack[i];
        if (tov_bit_is_set(n->present, TOV_DATATREE_BIT_QUALIFIER) && n->qualifier) return n->qualifier;
    }
    return NULL;
}

static void set_error_path(EditCtx *c, Error *error) {
    XPathContext x;
    memset(&x, 0, sizeof x);
    if (xpath_context_init(&x) != 0) return;
    for (int i = c->depth - 1; i >= 0; --i) {
        const char *names[AGENT_MAX_KEYS], *values[AGENT_MAX_KEYS];
        char scratch[256];
        uint32_t n = tree_keys(c->stack[i], names, values, scratch, sizeof scratch);
        for (uint32_t k = 0; k < n; ++k)
            if (!values[k]) values[k] = "";
        if (xpath_prepend(&x, c->stack[i]->name ? c->stack[i]->name : "", namespace_at(c, i), names, values, n) != 0)
            break;
    }
    xpath_to_tov_error(&x, error);
    xpath_context_destroy(&x);
}

/* A data error at the node on top of the stack. The first goes into the result; with
 * continue-on-error the later ones follow in the response's errors. */
static int data_error(EditCtx *c, uint32_t type, const char *tag, const char *message) {
    c->errors++;
    if (c->errors == 1) {
        if (tov_req_result_error_set(c->result, type, TOV_ERROR_SEVERITY_ERROR, tag, message) == 0)
            set_error_path(c, &c->result->error);
        return -1;
    }
    RequestResult extra;
    memset(&extra, 0, sizeof extra);
    if (tov_req_result_error_set(&extra, type, TOV_ERROR_SEVERITY_ERROR, tag, message) == 0) {
        set_error_path(c, &extra.error);
        Response *r = c->response;
        Error *grown = tov_gpb_alloc((r->errors_count + 1) * (uint32_t)sizeof(Error), 0);
        if (grown) {
            if (r->errors_count) memcpy(grown, r->errors, r->errors_count * sizeof(Error));
            tov_gpb_free(r->errors, 0);
            grown[r->errors_count++] = extra.error;
            memset(&extra.error, 0, sizeof extra.error);
            r->errors = grown;
            tov_bit_set(r->present, TOV_RESPONSE_BIT_ERRORS);
        }
    }
    kesh_tov_request_result_free_ext(&extra, tov_gpb_free, 0, 0);
    return -1;
}

static int nomem(EditCtx *c) {
    c->errors++;
    return -2;
}

/* ---- edit-config ---- */

static int edit_children(EditCtx *c, DataTree *target, const DataTree *edit, uint32_t inherited);

/* A node that is not in the target yet: its shell, then its children edited into it. */
static int create_node(EditCtx *c, DataTree *target, const DataTree *node, uint32_t op) {
    DataTree *copy = tree_append(target);
    if (tree_copy_shell(copy, node) != 0) return nomem(c);
    int rc = edit_children(c, copy, node, op == EDIT_OP_NONE ? TOV_EDIT_OP_MERGE : op);
    return rc;
}

static int edit_node(EditCtx *c, DataTree *target, const DataTree *node, uint32_t inherited) {
    uint32_t op = tov_bit_is_set(node->present, TOV_DATATREE_BIT_OPERATION) ? node->operation : inherited;
    if (!node->name || !tov_bit_is_set(node->present, TOV_DATATREE_BIT_NAME))
        return data_error(c, TOV_ERROR_TYPE_PROTOCOL, "missing-element", "A node has no name.");
    if (op > TOV_EDIT_OP_REMOVE && op != EDIT_OP_NONE)
        return data_error(c, TOV_ERROR_TYPE_PROTOCOL, "bad-attribute", "Unknown edit operation.");
    int64_t at = tree_find(target, node);
    switch (op) {
    case TOV_EDIT_OP_CREATE:
        if (at >= 0) return data_error(c, TOV_ERROR_TYPE_APPLICATION, "data-exists", "The data already exists.");
        return create_node(c, target, node, op);
    case TOV_EDIT_OP_DELETE:
        if (at < 0) return data_error(c, TOV_ERROR_TYPE_APPLICATION, "data-missing", "The data does not exist.");
        tree_remove_child(target, (uint32_t)at);
        return 0;
    case TOV_EDIT_OP_REMOVE:
        if (at >= 0) tree_remove_child(target, (uint32_t)at);
        return 0;
    case TOV_EDIT_OP_REPLACE:
        if (at >= 0) {
            /* the new node takes the old one's place among its siblings */
            DataTree fresh;
            if (tree_copy_shell(&fresh, node) != 0) {
                tree_clear(&fresh);
                return nomem(c);
            }
            tree_clear(&target->children[at]);
            target->children[at] = fresh;
            return edit_children(c, &target->children[at], node, op);
        }
        return create_node(c, target, node, op);
    case EDIT_OP_NONE:
        if (at < 0) return data_error(c, TOV_ERROR_TYPE_APPLICATION, "data-missing", "The data does not exist.");
        return edit_children(c, &target->children[at], node, op);
    default: /* merge */
        if (at < 0) return create_node(c, target, node, op);
        DataTree *old = &target->children[at];
        if (tov_bit_is_set(node->present, TOV_DATATREE_BIT_VALUE) && node->value) {
            char *v = tree_strdup(node->value);
            if (!v) return nomem(c);
            tov_gpb_free(old->value, 0);
            old->value = v;
            tov_bit_set(old->present, TOV_DATATREE_BIT_VALUE);
        }
        return edit_children(c, old, node, op);
    }
}

static int edit_children(EditCtx *c, DataTree *target, const DataTree *edit, uint32_t inherited) {
    if (edit->children_count == 0) return 0;
    if (c->depth >= AGENT_MAX_DEPTH)
        return data_error(c, TOV_ERROR_TYPE_APPLICATION, "too-big", "The tree is too deep.");
    if (tree_reserve(target, edit->children_count) != 0) return nomem(c);
    int worst = 0;
    for (uint32_t i = 0; i < edit->children_count; ++i) {
        c->stack[c->depth++] = &edit->children[i];
        int rc = edit_node(c, target, &edit->children[i], inherited);
        c->depth--;
        if (rc == -2) return rc;
        if (rc != 0) {
            worst = rc;
            if (!c->continue_on_error) return rc;
        }
    }
    return worst;
}

/* Structural checks without a schema: names present, list entries with their key leaves and no two
 * entries with the same keys. Other same-named siblings (leaf-lists, keyless lists) are kept. */
static int validate_children(EditCtx *c, const DataTree *tree) {
    if (c->depth >= AGENT_MAX_DEPTH) return data_error(c, TOV_ERROR_TYPE_APPLICATION, "too-big", "The tree is too deep.");
    for (uint32_t i = 0; i < tree->children_count; ++i) {
        const DataTree *n = &tree->children[i];
        c->stack[c->depth++] = n;
        int rc = 0;
        const char *names[AGENT_MAX_KEYS], *values[AGENT_MAX_KEYS];
        char scratch[256];
        uint32_t keys = tree_keys(n, names, values, scratch, sizeof scratch);
        if (!n->name) rc = data_error(c, TOV_ERROR_TYPE_PROTOCOL, "missing-element", "A node has no name.");
        for (uint32_t k = 0; k < keys && !rc; ++k)
            if (!values[k]) rc = data_error(c, TOV_ERROR_TYPE_APPLICATION, "missing-element", "A list entry lacks a key leaf.");
        if (!rc && keys && tree_find(tree, n) != (int64_t)i)
            rc = data_error(c, TOV_ERROR_TYPE_APPLICATION, "invalid-value", "Two nodes name the same data.");
        if (!rc) rc = validate_children(c, n);
        c->depth--;
        if (rc) return rc;
    }
    return 0;
}

/* A top-level node of the working tree that is still the datastore's own record. */
static int borrowed(const DataTree *orig, const DataTree *node) {
    for (uint32_t j = 0; j < orig->children_count; ++j)
        if (memcmp(&orig->children[j], node, sizeof *node) == 0) return 1;
    return 0;
}

/* Ends an edit's working tree: kept, it becomes the datastore and the datastore's nodes it no
 * longer borrows are freed; dropped, the nodes it made are freed. Borrowed nodes keep their
 * relative order in the working tree, so one forward walk pairs them up. */
static void finish_work(DataTree *orig, DataTree *work, int keep) {
    uint32_t k = 0;
    uint8_t *lent = tov_gpb_alloc(work->children_count + 1, 0); /* work's borrowed entries */
    for (uint32_t j = 0; j < orig->children_count; ++j) {
        uint32_t at = k;
        while (at < work->children_count && memcmp(&work->children[at], &orig->children[j], sizeof(DataTree)) != 0) ++at;
        if (at < work->children_count) {
            if (lent) lent[at] = 1;
            k = at + 1;
        } else if (keep) {
            tree_clear(&orig->children[j]);
        }
    }
    if (keep) {
        tov_gpb_free(orig->children, 0);
        *orig = *work;
        if (work->children_count == 0) {
            tov_gpb_free(orig->children, 0);
            orig->children = NULL;
            tov_bit_clear(orig->present, TOV_DATATREE_BIT_CHILDREN);
        }
    } else {
        for (uint32_t i = 0; i < work->children_count; ++i)
            if (!lent || !lent[i]) {
                if (!lent && borrowed(orig, &work->children[i])) continue;
                tree_clear(&work->children[i]);
            }
        tov_gpb_free(work->children, 0);
    }
    tov_gpb_free(lent, 0);
}

static uint32_t edit_config(Engine *e, const Request *rq, const Session *s, RequestResult *result, Response *response) {
    const EditConfig *ec = &rq->edit_config;
    int ds = datastore_index(&ec->target, DS_CANDIDATE);
    if (ds < 0) return bad_datastore(result);
    uint32_t def = tov_bit_is_set(ec->present, TOV_EDIT_CONFIG_BIT_OPTION_2) ? ec->option_2 : EDIT_DEFAULT_MERGE;
    uint32_t test = tov_bit_is_set(ec->present, TOV_EDIT_CONFIG_BIT_OPTION_4) ? ec->option_4 : TEST_THEN_SET;
    uint32_t onerr = tov_bit_is_set(ec->present, TOV_EDIT_CONFIG_BIT_OPTION_3) ? ec->option_3 : STOP_ON_ERROR;
    if (def > EDIT_DEFAULT_NONE || test > TEST_ONLY || onerr > ROLLBACK_ON_ERROR)
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "Unknown edit-config option.");
    if (test != TEST_ONLY) {
        uint32_t rc = check_not_locked(e, result, ds, s);
        if (rc) return rc;
    }
    EditCtx c = {.e = e, .result = result, .response = response, .continue_on_error = onerr == CONTINUE_ON_ERROR};
    if (test != SET_ONLY && validate_children(&c, &ec->config) != 0) return c.errors ? AGENT_ERROR_SET : TOV_RC_NO_MEMORY;
    /* The edit goes to a working tree, swapped in when it is to be kept, so that a failed edit
     * leaves the datastore as it was (rollback-on-error; stop-on-error here too). The working tree
     * borrows the datastore's top-level nodes and copies only those the edit reaches. */
    DataTree *orig = &e->ds[ds];
    DataTree work = *orig;
    const int replace_all = def == EDIT_DEFAULT_REPLACE && !tov_bit_is_set(ec->config.present, TOV_DATATREE_BIT_OPERATION);
    work.children_count = replace_all ? 0 : orig->children_count; /* replace: the whole configuration */
    work.children = tov_gpb_alloc((work.children_count + 1) * (uint32_t)sizeof(DataTree), 0);
    if (!work.children) return TOV_RC_NO_MEMORY;
    if (work.children_count) memcpy(work.children, orig->children, work.children_count * sizeof(DataTree));
    uint32_t inherited = def == EDIT_DEFAULT_NONE ? EDIT_OP_NONE : def == EDIT_DEFAULT_REPLACE ? TOV_EDIT_OP_REPLACE : TOV_EDIT_OP_MERGE;
    if (tov_bit_is_set(ec->config.present, TOV_DATATREE_BIT_OPERATION)) inherited = ec->config.operation;
    if (replace_all) inherited = TOV_EDIT_OP_MERGE;
    int rc = 0;
    for (uint32_t i = 0; i < ec->config.children_count && rc == 0; ++i) {
        int64_t at = tree_find(&work, &ec->config.children[i]);
        if (at < 0 || !borrowed(orig, &work.children[at])) continue;
        DataTree copy;
        if (tree_copy(&copy, &work.children[at]) != 0) {
            tree_clear(&copy);
            rc = -2;
        } else {
            work.children[at] = copy;
        }
    }
    if (rc == 0) rc = edit_children(&c, &work, &ec->config, inherited);
    const int keep = test != TEST_ONLY && rc != -2 && (c.errors == 0 || onerr == CONTINUE_ON_ERROR);
    finish_work(orig, &work, keep);
    if (keep) {
        if (ds == DS_CANDIDATE) e->candidate_dirty = 1;
        uint32_t src = save(e, ds);
        if (src && !c.errors) return src;
    }
    if (rc == -2) return TOV_RC_NO_MEMORY;
    return c.errors ? AGENT_ERROR_SET : 0;
}

static uint32_t validate(Engine *e, const Request *rq, RequestResult *result, Response *response) {
    const Validate *v = &rq->validate;
    const DataTree *tree = &v->config;
    if (!tov_bit_is_set(v->present, TOV_VALIDATE_BIT_CONFIG) && v->config.children_count == 0) {
        int ds = datastore_index(&v->source, DS_CANDIDATE);
        if (ds < 0) return bad_datastore(result);
        tree = &e->ds[ds];
    }
    EditCtx c = {.e = e, .result = result, .response = response};
    return validate_children(&c, tree) == 0 ? 0 : AGENT_ERROR_SET;
}

/* ---- retrieval ---- */

static int has_filter(const Filter *f) {
    return tov_bit_is_set(f->present, TOV_FILTER_BIT_FILTER_TYPE) || tov_bit_is_set(f->present, TOV_FILTER_BIT_TREE) ||
           f->tree.children_count != 0;
}

/* Unfiltered answers lend the tree itself to the response instead of copying it: the agent writes
 * the response before anything can change the tree, and takes the loan back before freeing. */
static uint32_t answer(Engine *e, RequestResult *result, Response *response, const DataTree *data, const Filter *filter) {
    if (filter && has_filter(filter)) {
        if (tov_bit_is_set(filter->present, TOV_FILTER_BIT_FILTER_TYPE) && filter->filter_type != 0)
            return fail(result, TOV_ERROR_TYPE_PROTOCOL, "operation-not-supported", "Only subtree filters are supported.");
        if (tree_copy_shell(&response->data, data) != 0 || tree_filter(&response->data, data, &filter->tree) != 0)
            return TOV_RC_NO_MEMORY;
    } else {
        response->data = *data;
        e->data_lent = 1;
    }
    tov_bit_set(response->present, TOV_RESPONSE_BIT_DATA);
    return 0;
}

static uint32_t get_config(Engine *e, const Request *rq, RequestResult *result, Response *response) {
    int ds = datastore_index(&rq->get_config.source, DS_RUNNING);
    if (ds < 0) return bad_datastore(result);
    return answer(e, result, response, &e->ds[ds], &rq->get_config.filter);
}

static DataTree *add_container(DataTree *parent, const char *name, uint32_t room) {
    DataTree *n = tree_add_leaf(parent, name, NULL);
    return n && tree_reserve(n, room) == 0 ? n : NULL;
}

static int add_number(DataTree *parent, const char *name, uint64_t value) {
    char text[24];
    snprintf(text, sizeof text, "%" PRIu64, value);
    return tree_add_leaf(parent, name, text) ? 0 : -1;
}

/* Frees a tree whose first `borrowed` children belong to someone else. */
static void release_scratch(DataTree *tree, uint32_t borrowed) {
    if (tree->children)
        for (uint32_t i = borrowed; i < tree->children_count; ++i) tree_clear(&tree->children[i]);
    tov_gpb_free(tree->children, 0);
    tov_gpb_free(tree->name, 0);
    memset(tree, 0, sizeof *tree);
}

void engine_response_sent(Engine *e, Response *response) {
    if (e->data_lent) {
        memset(&response->data, 0, sizeof response->data);
        tov_bit_clear(response->present, TOV_RESPONSE_BIT_DATA);
        e->data_lent = 0;
    }
    if (e->scratch.name) release_scratch(&e->scratch, e->scratch_borrowed);
}

/* Running plus the agent's own state: its sessions, locks and counters. */
static uint32_t get(Engine *e, const Request *rq, const uint32_t *sessions, uint32_t session_count, RequestResult *result,
                    Response *response) {
    kor_named_stats memory;
    kor_named_get_stats(NULL, &memory);
    /* running's top-level nodes are borrowed, not copied; only the state is made here */
    const DataTree *run = &e->ds[DS_RUNNING];
    DataTree all;
    memset(&all, 0, sizeof all);
    uint32_t rc = TOV_RC_NO_MEMORY;
    if (!(all.name = tree_strdup("data"))) goto out;
    tov_bit_set(all.present, TOV_DATATREE_BIT_NAME);
    if (!(all.children = tov_gpb_alloc((run->children_count + 1) * (uint32_t)sizeof(DataTree), 0))) goto out;
    if (run->children_count) memcpy(all.children, run->children, run->children_count * sizeof(DataTree));
    all.children_count = run->children_count;
    tov_bit_set(all.present, TOV_DATATREE_BIT_CHILDREN);
    DataTree *state = add_container(&all, "agent-state", 3);
    if (!state || !(state->qualifier = tree_strdup(AGENT_NAMESPACE))) goto out;
    tov_bit_set(state->present, TOV_DATATREE_BIT_QUALIFIER);
    DataTree *list = add_container(state, "sessions", session_count);
    for (uint32_t i = 0; list && i < session_count; ++i) {
        DataTree *entry = add_container(list, "session", 1);
        Attribute *key = entry ? tov_gpb_alloc(sizeof(Attribute), 0) : NULL;
        if (!key) goto out;
        entry->attributes = key;
        entry->attributes_count = 1;
        tov_bit_set(entry->present, TOV_DATATREE_BIT_ATTRIBUTES);
        key->name = tree_strdup(AGENT_KEY_ATTRIBUTE);
        key->value = tree_strdup("session-id");
        if (!key->name || !key->value || add_number(entry, "session-id", sessions[i]) != 0) goto out;
        tov_bit_set(key->present, TOV_ATTRIBUTE_BIT_NAME);
        tov_bit_set(key->present, TOV_ATTRIBUTE_BIT_VALUE);
    }
    DataTree *locks = add_container(state, "locks", DS_COUNT);
    for (int ds = 0; locks && ds < DS_COUNT; ++ds) {
        if (!e->lock_holder[ds]) continue;
        DataTree *entry = add_container(locks, kDatastoreNames[ds], 1);
        if (!entry || add_number(entry, "session-id", e->lock_holder[ds]) != 0) goto out;
    }
    DataTree *stats = add_container(state, "statistics", 6);
    if (!list || !locks || !stats || add_number(stats, "requests", e->requests) || add_number(stats, "failures", e->failures) ||
        add_number(stats, "commits", e->commits) || add_number(stats, "rollbacks", e->rollbacks) ||
        add_number(stats, "clients", e->clients) || add_number(stats, "live-blocks", memory.live_blocks))
        goto out;
    rc = answer(e, result, response, &all, &rq->get.filter);
    if (rc == 0 && e->data_lent) {
        e->scratch = all;
        e->scratch_borrowed = run->children_count;
        return 0;
    }
out:
    release_scratch(&all, run->children_count);
    return rc;
}

/* ---- locks ---- */

static uint32_t lock(Engine *e, const Datastore *target, const Session *s, RequestResult *result) {
    int ds = datastore_index(target, -1);
    if (ds < 0) return bad_datastore(result);
    if (e->lock_holder[ds])
        return fail_held(e, result, "lock-denied", "Lock failed, lock is already held.", e->lock_holder[ds]);
    if (ds == DS_CANDIDATE && e->candidate_dirty)
        return fail_held(e, result, "lock-denied", "The candidate has uncommitted changes.", 0);
    e->lock_holder[ds] = s->session_id;
    return 0;
}

static uint32_t unlock(Engine *e, const Datastore *target, const Session *s, RequestResult *result) {
    int ds = datastore_index(target, -1);
    if (ds < 0) return bad_datastore(result);
    if (e->lock_holder[ds] != s->session_id)
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "operation-failed", "The session does not hold this lock.");
    e->lock_holder[ds] = 0;
    return 0;
}

/* ---- commits ---- */

static void clear_pending(Engine *e) {
    e->confirm_pending = 0;
    tree_clear(&e->rollback);
    tov_gpb_free(e->persist, 0);
    e->persist = NULL;
}

static uint32_t roll_back(Engine *e, const char *why) {
    AGENT_LOG(e->me, TOV_MSG_WARNING, TOV_DEBUG_OP_COUNT, "confirmed commit rolled back: %s", why);
    DataTree old = e->rollback;
    memset(&e->rollback, 0, sizeof e->rollback);
    clear_pending(e);
    tree_clear(&e->ds[DS_RUNNING]);
    e->ds[DS_RUNNING] = old;
    e->rollbacks++;
    e->candidate_dirty = 1;
    return save(e, DS_RUNNING);
}

static int64_t ms_until(const struct timespec *t) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)(t->tv_sec - now.tv_sec) * 1000 + (t->tv_nsec - now.tv_nsec) / 1000000;
}

int engine_tick(Engine *e) {
    if (!e->confirm_pending) return -1;
    int64_t left = ms_until(&e->confirm_deadline);
    if (left > 0) return left > INT32_MAX ? INT32_MAX : (int)left;
    roll_back(e, "not confirmed in time");
    return -1;
}

static uint32_t commit(Engine *e, const Request *rq, const Session *s, RequestResult *result) {
    const Commit *c = &rq->commit;
    uint32_t rc = check_not_locked(e, result, DS_RUNNING, s);
    if (!rc) rc = check_not_locked(e, result, DS_CANDIDATE, s);
    if (rc) return rc;
    const char *persist_id = tov_bit_is_set(c->present, TOV_COMMIT_BIT_PERSIST_ID) ? c->persist_id : NULL;
    if (e->confirm_pending) {
        if (e->persist ? !persist_id || strcmp(persist_id, e->persist) != 0 : e->confirm_session != s->session_id)
            return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value",
                        "A confirmed commit of another session or persist-id is pending.");
    } else if (persist_id) {
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "No confirmed commit is pending.");
    }
    const int confirmed = tov_bit_is_set(c->present, TOV_COMMIT_BIT_CONFIRMED) && c->confirmed;
    if (confirmed && !e->confirm_pending) {
        if (tree_copy(&e->rollback, &e->ds[DS_RUNNING]) != 0) {
            tree_clear(&e->rollback);
            return TOV_RC_NO_MEMORY;
        }
    }
    DataTree next;
    if (tree_copy(&next, &e->ds[DS_CANDIDATE]) != 0) {
        tree_clear(&next);
        if (confirmed && !e->confirm_pending) tree_clear(&e->rollback);
        return TOV_RC_NO_MEMORY;
    }
    tree_clear(&e->ds[DS_RUNNING]);
    e->ds[DS_RUNNING] = next;
    e->candidate_dirty = 0;
    e->commits++;
    if (confirmed) {
        uint32_t timeout = tov_bit_is_set(c->present, TOV_COMMIT_BIT_CONFIRM_TIMEOUT) ? c->confirm_timeout
                                                                                      : e->default_confirm_timeout;
        clock_gettime(CLOCK_MONOTONIC, &e->confirm_deadline);
        e->confirm_deadline.tv_sec += timeout;
        e->confirm_pending = 1;
        e->confirm_session = s->session_id;
        tov_gpb_free(e->persist, 0);
        e->persist = NULL;
        if (tov_bit_is_set(c->present, TOV_COMMIT_BIT_PERSIST) && c->persist && !(e->persist = tree_strdup(c->persist)))
            return TOV_RC_NO_MEMORY;
    } else if (e->confirm_pending) {
        clear_pending(e);
    }
    rc = save(e, DS_RUNNING);
    if (!rc && e->save_startup_on_commit) rc = replace_datastore(e, DS_STARTUP, &e->ds[DS_RUNNING]);
    return rc;
}

static uint32_t cancel_commit(Engine *e, const Request *rq, const Session *s, RequestResult *result) {
    const CancelCommit *c = &rq->cancel_commit;
    const char *persist_id = tov_bit_is_set(c->present, TOV_CANCEL_COMMIT_BIT_PERSIST_ID) ? c->persist_id : NULL;
    if (!e->confirm_pending)
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "No confirmed commit is pending.");
    if (e->persist ? !persist_id || strcmp(persist_id, e->persist) != 0 : e->confirm_session != s->session_id)
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value",
                    "A confirmed commit of another session or persist-id is pending.");
    return roll_back(e, "cancel-commit");
}

/* ---- datastore copies ---- */

static uint32_t copy_config(Engine *e, const Request *rq, const Session *s, RequestResult *result, Response *response) {
    const CopyConfig *c = &rq->copy_config;
    if (tov_bit_is_set(c->present, TOV_COPY_CONFIG_BIT_TARGET_URL) || tov_bit_is_set(c->present, TOV_COPY_CONFIG_BIT_SOURCE_URL))
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "operation-not-supported", "URLs are not supported.");
    int target = datastore_index(&c->target, -1);
    if (target < 0) return bad_datastore(result);
    const DataTree *src;
    if (tov_bit_is_set(c->present, TOV_COPY_CONFIG_BIT_SOURCE_CONFIG) || c->source_config.children_count) {
        EditCtx v = {.e = e, .result = result, .response = response};
        if (validate_children(&v, &c->source_config) != 0) return AGENT_ERROR_SET;
        src = &c->source_config;
    } else {
        int source = datastore_index(&c->source, -1);
        if (source < 0) return bad_datastore(result);
        if (source == target)
            return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "Source and target are the same datastore.");
        src = &e->ds[source];
    }
    uint32_t rc = check_not_locked(e, result, target, s);
    return rc ? rc : replace_datastore(e, target, src);
}

/* delete-config carries no payload; it deletes the one datastore that may be deleted: startup. */
static uint32_t delete_config(Engine *e, const Session *s, RequestResult *result) {
    uint32_t rc = check_not_locked(e, result, DS_STARTUP, s);
    return rc ? rc : replace_datastore(e, DS_STARTUP, NULL);
}

static uint32_t discard_changes(Engine *e, const Session *s, RequestResult *result) {
    uint32_t rc = check_not_locked(e, result, DS_CANDIDATE, s);
    if (rc) return rc;
    rc = replace_datastore(e, DS_CANDIDATE, &e->ds[DS_RUNNING]);
    e->candidate_dirty = 0;
    return rc;
}

/* ---- sessions ---- */

void engine_client_gone(Engine *e, uint32_t client) {
    for (uint32_t i = e->session_count; i-- > 0;) {
        Session *s = tov_session_find(e->framework, e->session_ids[i]);
        if (!s || s->user[0] != client) continue;
        AGENT_LOG(e->me, TOV_MSG_WARNING, TOV_DEBUG_OP_COUNT, "client %" PRIu32 " left: session %" PRIu32 " ends", client,
                  s->session_id);
        engine_session_end(e, s);
        if (i > e->session_count) i = e->session_count;
    }
}

void engine_session_end(Engine *e, Session *session) {
    for (int ds = 0; ds < DS_COUNT; ++ds)
        if (e->lock_holder[ds] == session->session_id) e->lock_holder[ds] = 0;
    if (e->confirm_pending && !e->persist && e->confirm_session == session->session_id)
        roll_back(e, "its session ended");
    for (uint32_t i = 0; i < e->session_count; ++i)
        if (e->session_ids[i] == session->session_id) e->session_ids[i--] = e->session_ids[--e->session_count];
    tov_session_destroy(e->framework, session);
}

static uint32_t stop_session(Engine *e, const Request *rq, Session **session, RequestResult *result) {
    const StopSession *st = &rq->stop_session;
    if (tov_bit_is_set(st->present, TOV_STOP_SESSION_BIT_SESSION_ID) && st->session_id != (*session)->session_id) {
        Session *victim = tov_session_find(e->framework, st->session_id);
        if (!victim) return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "No session with that id.");
        engine_session_end(e, victim);
        return 0;
    }
    engine_session_end(e, *session);
    *session = NULL;
    return 0;
}

/* ---- the framework's own operations ---- */

/* value_1 component, value_2 level, flag_4 per operation with value_3 the operation, flag_5 clear
 * the trace rings first, flag_6 quiet (no change line). */
static uint32_t logging_set(Engine *e, const Request *rq, RequestResult *result) {
    const LoggingSet *l = &rq->logging_set;
    if (l->flag_5) tov_clear_trace(e->framework);
    uint32_t rc = tov_debug_logging_set_level(e->framework, l->value_1, l->flag_4, l->value_3, l->value_2, !l->flag_6);
    if (rc == TOV_RC_BAD_ARGUMENT)
        return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "Unknown component, operation or level.");
    return rc;
}

/* One schema per namespace of running's top-level nodes, and the agent's own. */
static uint32_t schemas_list(Engine *e, Response *response) {
    const DataTree *run = &e->ds[DS_RUNNING];
    Schema *list = tov_gpb_alloc((run->children_count + 1) * (uint32_t)sizeof(Schema), 0);
    if (!list) return TOV_RC_NO_MEMORY;
    response->schemas = list;
    tov_bit_set(response->present, TOV_RESPONSE_BIT_SCHEMAS);
    uint32_t n = 0;
    for (uint32_t i = 0; i <= run->children_count; ++i) {
        const char *module = i < run->children_count ? run->children[i].name : "tov-agent";
        const char *ns = i < run->children_count ? run->children[i].qualifier : AGENT_NAMESPACE;
        if (!module || !ns) continue;
        int seen = 0;
        for (uint32_t k = 0; k < n && !seen; ++k) seen = strcmp(list[k].text_2, ns) == 0;
        if (seen) continue;
        Schema *s = &list[n++];
        response->schemas_count = n;
        s->text_1 = tree_strdup(module);
        s->text_2 = tree_strdup(ns);
        s->text_5 = tree_strdup("yang");
        if (!s->text_1 || !s->text_2 || !s->text_5) return TOV_RC_NO_MEMORY;
        tov_bit_set(s->present, TOV_SCHEMA_BIT_TEXT_1);
        tov_bit_set(s->present, TOV_SCHEMA_BIT_TEXT_2);
        tov_bit_set(s->present, TOV_SCHEMA_BIT_TEXT_5);
    }
    if (tov_debug_should_log_op(e->me, TOV_MSG_DEBUG, TOV_OP_SCHEMAS_LIST))
        tov_gpb_schemas_trace_internal(e->me, response->schemas, response->schemas_count, "schemas-list response");
    return 0;
}

/* flag_1: every commit also saves running as startup; value_2, when given: the confirm timeout
 * of confirmed commits that give none (seconds, at least 1). */
static uint32_t settings_set(Engine *e, const Request *rq, RequestResult *result) {
    const SettingsSet *st = &rq->settings_set;
    if (tov_bit_is_set(st->present, TOV_SETTINGS_SET_BIT_VALUE_2)) {
        if (st->value_2 == 0) return fail(result, TOV_ERROR_TYPE_PROTOCOL, "invalid-value", "The timeout must be positive.");
        e->default_confirm_timeout = st->value_2;
    }
    if (tov_bit_is_set(st->present, TOV_SETTINGS_SET_BIT_FLAG_1)) e->save_startup_on_commit = st->flag_1;
    return 0;
}

/* ---- dispatch ---- */

uint32_t engine_handle(Engine *e, RequestContext *rctx, Session **session, uint32_t client, RequestResult *result,
                       Response *response) {
    const Request *rq = rctx->request;
    const Session *s = *session;
    switch (rq->operation) {
    case TOV_OP_GET_CONFIG: return get_config(e, rq, result, response);
    case TOV_OP_EDIT_CONFIG: return edit_config(e, rq, s, result, response);
    case TOV_OP_VALIDATE: return validate(e, rq, result, response);
    case TOV_OP_LOCK: return lock(e, &rq->lock.target, s, result);
    case TOV_OP_UNLOCK: return unlock(e, &rq->unlock.target, s, result);
    case TOV_OP_COMMIT: return commit(e, rq, s, result);
    case TOV_OP_CANCEL_COMMIT: return cancel_commit(e, rq, s, result);
    case TOV_OP_DISCARD_CHANGES: return discard_changes(e, s, result);
    case TOV_OP_COPY_CONFIG: return copy_config(e, rq, s, result, response);
    case TOV_OP_DELETE_CONFIG: return delete_config(e, s, result);
    case TOV_OP_GET: return get(e, rq, e->session_ids, e->session_count, result, response);
    case TOV_OP_START_SESSION: {
        Session *created = tov_session_create(e->framework);
        if (!created) return AGENT_ME_RESOURCE_DENIED;
        if (e->session_count == AGENT_MAX_SESSIONS) {
            tov_session_destroy(e->framework, created);
            return AGENT_ME_RESOURCE_DENIED;
        }
        e->session_ids[e->session_count++] = created->session_id;
        /* number_3 1: the session outlives its connection (one request per connection) */
        const StartSession *st = &rq->start_session;
        created->user[0] = tov_bit_is_set(st->present, TOV_START_SESSION_BIT_NUMBER_3) && st->number_3 == 1 ? 0 : client;
        *session = created;
        response->code = created->session_id;
        tov_bit_set(response->present, TOV_RESPONSE_BIT_CODE);
        return 0;
    }
    case TOV_OP_STOP_SESSION: return stop_session(e, rq, session, result);
    case TOV_OP_LOGGING_SET: return logging_set(e, rq, result);
    case TOV_OP_SCHEMAS_LIST: return schemas_list(e, response);
    case TOV_OP_SETTINGS_SET: return settings_set(e, rq, result);
    default: /* cli-config, cli-show, invoke-rpc and unknown operations */
        return AGENT_ME_NOT_SUPPORTED;
    }
}

int engine_init(Engine *e, FrameworkContext *framework, DebugContext *me, const char *dir) {
    memset(e, 0, sizeof *e);
    e->framework = framework;
    e->me = me;
    e->dir = dir;
    e->default_confirm_timeout = 600;
    for (int ds = 0; ds < DS_COUNT; ++ds) {
        if (!kFileNames[ds]) continue;
        int rc = store_load(dir, kFileNames[ds], &e->ds[ds]);
        if (rc < 0) {
            fprintf(stderr, "tov-agent: %s/%s cannot be read\n", dir, kFileNames[ds]);
            return -1;
        }
        if (rc == 1 && ds == DS_RUNNING) {
            /* no running yet: start from startup when there is one */
            DataTree boot;
            if (store_load(dir, kFileNames[DS_STARTUP], &boot) == 0) e->ds[ds] = boot;
        }
    }
    for (int ds = 0; ds < DS_COUNT; ++ds) {
        if (e->ds[ds].name) continue;
        if (!(e->ds[ds].name = tree_strdup("data"))) return -1;
        tov_bit_set(e->ds[ds].present, TOV_DATATREE_BIT_NAME);
    }
    tree_clear(&e->ds[DS_CANDIDATE]);
    if (tree_copy(&e->ds[DS_CANDIDATE], &e->ds[DS_RUNNING]) != 0) return -1;
    return 0;
}

void engine_cleanup(Engine *e) {
    clear_pending(e);
    for (int ds = 0; ds < DS_COUNT; ++ds) tree_clear(&e->ds[ds]);
}
