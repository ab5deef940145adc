/*
 * qel_base.h - logging, bounded formatting and keyed hash tables of the agent framework
 * (libqelbase).
 *
 * One thread: every function here is called from the main loop's thread only. Exhausted memory is
 * never reported to a caller: the function logs "Out of memory\n" at level 0 and ends the process
 * with exit(0), as every part of an agent does.
 */
#ifndef QEL_BASE_H
#define QEL_BASE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ---- Logging ------------------------------------------------------------------------------- */

/* Levels of error_output; 1 is not used. A message is printed when its level is at most the
 * threshold. */
enum { QEL_LOG_FATAL = 0, QEL_LOG_ERROR = 2, QEL_LOG_NOTICE = 3, QEL_LOG_DEBUG = 4 };

/* Writes one line to standard error, in one write: local time, level, `source` (the calling
 * module's name), `line` and the printf-style message. A line feed is supplied when the message has
 * none; every other control byte of the message (below 0x20, and 0x7f) is written as \xHH, so that
 * texts from outside cannot start a line of their own. A message whose level is
 * filtered out costs no formatting. errno is left as it was. */
void error_output(int level, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* Sets the threshold, 0 to 4; values outside are brought to the nearer end. Until the first call it
 * is the number in the environment variable QEL_LOG_LEVEL, brought to the nearer end as well, or
 * QEL_LOG_NOTICE when the variable is missing or is not a number. */
void error_output_set_level(int level);

/* ---- Bounded formatting --------------------------------------------------------------------- */

/* Formats as snprintf(3) does, cutting what does not fit. `size` counts the terminating zero byte,
 * which is always written unless `size` is 0. Returns the number of characters stored, the
 * terminator not counted: at most size - 1, and 0 for a size of 0 or a failing format. */
int str_snprintf(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- Keyed hash tables ----------------------------------------------------------------------- */

/* A table maps keys to pointers. Made by xhash_create2 it stores keys as opaque pointer-sized
 * values and leaves hashing and comparing to its caller; made by xhash_create it copies and
 * compares the bytes of its keys. A table never looks behind a value; it hands it to the release
 * function when the entry is deleted, replaced or cleared. The entry is gone from the table by
 * then. */
typedef struct xhash xhash_t;

/* The place where a partial walk goes on. */
typedef struct xhash_cookie xhash_cookie_t;

typedef void (*xhash_release_fn)(void* value);
typedef uint32_t (*xhash_hash_fn)(const void* key, size_t key_length);
/* Returns 0 when the keys are equal. */
typedef int (*xhash_compare_fn)(const void* key1, size_t length1, const void* key2, size_t length2);
/* Returns 0 to go on; anything else ends the walk. It may delete the entry it is visiting, after
 * which a byte-string key is gone too, and may insert entries: whether the same walk visits those
 * is left open. When it deletes other entries, some may be visited twice. It must not destroy the
 * table. */
typedef int (*xhash_visit_fn)(const void* key, size_t key_length, void* value, void* argument);

/* A table of opaque keys: equal keys must have equal hashes, which need not be spread well, so that
 * a number may be its own hash. `release` may be null. `option` is 1. */
xhash_t* xhash_create2(xhash_release_fn release, xhash_hash_fn hash, xhash_compare_fn compare,
                       int option);

/* A table of byte-string keys. `release` may be null. `option` is 0. */
xhash_t* xhash_create(xhash_release_fn release, int option);

/* Stores `value` under `key`. An entry with an equal key gets the new key and value, and its old
 * value is released, unless it is the new one. Returns 0. */
int xhash_insert(xhash_t* table, const void* key, size_t key_length, void* value);

/* Returns 0 and stores the entry's value, or nonzero and leaves *value alone. */
int xhash_search(xhash_t* table, const void* key, size_t key_length, void** value);

/* Removes the entry and releases its value. Returns 0, or nonzero when there is no such entry. */
int xhash_delete(xhash_t* table, const void* key, size_t key_length);

/* Visits every entry once. */
void xhash_walk(xhash_t* table, void* argument, xhash_visit_fn visit);

/* A cookie for walks that cover `share` of a table (0 to 1) per call; a share outside counts as the
 * nearer end, and NaN as 0. It serves one table. */
xhash_cookie_t* xhash_cookie_create(float share);
void xhash_cookie_destroy(xhash_cookie_t* cookie);

/* Visits at least 256 entries, or the cookie's share of the table if that is more; of a table that
 * is no larger, every entry once. Otherwise, and after a visit that ended its walk, the next call
 * with the cookie goes on behind the entries visited last and wraps around. An entry is visited in
 * each round through the table that begins while it is stored. */
void xhash_walk_partial(xhash_t* table, xhash_cookie_t* cookie, void* argument,
                        xhash_visit_fn visit);

/* The number of entries. */
uint32_t xhash_count(xhash_t* table);

/* Removes every entry and releases its value; the table stays usable. */
void xhash_clear(xhash_t* table);

/* Clears the table and frees it. A null table is allowed. */
void xhash_destroy(xhash_t* table);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
