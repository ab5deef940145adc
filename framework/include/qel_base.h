/*
 * qel_base.h - logging, bounded formatting and keyed hash tables of the agent framework
 * (libqelbase).
 *
 * Every function here must be called from the main loop's thread. Exhausted memory is never
 * reported to a caller: the function logs "Out of memory\n" at level 0 and ends the process with
 * exit(0), as every part of an agent does.
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

/* Levels of error_output; 1 is unused. A message is printed when its level is not above the
 * threshold. */
enum { QEL_LOG_FATAL = 0, QEL_LOG_ERROR = 2, QEL_LOG_NOTICE = 3, QEL_LOG_DEBUG = 4 };

/* Writes one line to standard error, in one write: local time, level, `source` (the calling
 * module's name), `line` and the printf-style message. A line feed is added when the message has
 * none. Every other control byte of the message (below 0x20, and 0x7f) is written as \xHH, so that
 * texts from outside cannot start a line of their own. A message that the threshold suppresses
 * costs no formatting. errno is left unchanged. */
void error_output(int level, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* Sets the threshold, 0 to 4; values outside that range count as its nearer end. Until the first
 * call the threshold is the number in the environment variable QEL_LOG_LEVEL, limited in the same
 * way, or QEL_LOG_NOTICE when the variable is missing or not a number. */
void error_output_set_level(int level);

/* ---- Bounded formatting --------------------------------------------------------------------- */

/* Formats as snprintf(3) does and cuts what does not fit. `size` counts the terminating zero byte,
 * which is always written unless `size` is 0. Returns the number of characters stored, without the
 * terminator: at most size - 1, and 0 when `size` is 0 or formatting fails. */
int str_snprintf(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- Keyed hash tables ----------------------------------------------------------------------- */

/* A table maps keys to pointers. A table from xhash_create2 stores keys as opaque pointer-sized
 * values and leaves hashing and comparing to its caller. A table from xhash_create copies and
 * compares the bytes of its keys. A table never dereferences a value. It passes the value to the
 * release function when the entry is deleted, replaced or cleared. By then the entry is gone from
 * the table. */
typedef struct xhash xhash_t;

/* The place where a partial walk continues. */
typedef struct xhash_cookie xhash_cookie_t;

typedef void (*xhash_release_fn)(void* value);
typedef uint32_t (*xhash_hash_fn)(const void* key, size_t key_length);
/* Returns 0 when the keys are equal. */
typedef int (*xhash_compare_fn)(const void* key1, size_t length1, const void* key2, size_t length2);
/* Returns 0 to go on; anything else ends the walk. It may delete the entry it is visiting, after
 * which a byte-string key is gone too. It may also insert entries; whether the same walk visits
 * those is unspecified. When it deletes other entries, some entries may be visited twice. It must
 * not destroy the table. */
typedef int (*xhash_visit_fn)(const void* key, size_t key_length, void* value, void* argument);

/* Creates a table of opaque keys. Equal keys must have equal hashes. Hashes need not be well
 * distributed, so a number may be its own hash. `release` may be null. `option` is 1. */
xhash_t* xhash_create2(xhash_release_fn release, xhash_hash_fn hash, xhash_compare_fn compare,
                       int option);

/* Creates a table of byte-string keys. `release` may be null. `option` is 0. */
xhash_t* xhash_create(xhash_release_fn release, int option);

/* Stores `value` under `key`. An entry with an equal key gets the new key and value, and its old
 * value is released unless it is the same as the new one. Returns 0. */
int xhash_insert(xhash_t* table, const void* key, size_t key_length, void* value);

/* Returns 0 and stores the entry's value, or returns nonzero and leaves *value unchanged. */
int xhash_search(xhash_t* table, const void* key, size_t key_length, void** value);

/* Removes the entry and releases its value. Returns 0, or nonzero when there is no such entry. */
int xhash_delete(xhash_t* table, const void* key, size_t key_length);

/* Visits every entry once. */
void xhash_walk(xhash_t* table, void* argument, xhash_visit_fn visit);

/* Creates a cookie for walks that cover `share` of a table (0 to 1) per call. A share outside that
 * range counts as its nearer end, and NaN as 0. A cookie serves one table. */
xhash_cookie_t* xhash_cookie_create(float share);
void xhash_cookie_destroy(xhash_cookie_t* cookie);

/* Visits at least 256 entries, or the cookie's share of the table if that is more. When the table
 * is no larger than that, every entry is visited once. Otherwise, and after a visit that ended its
 * walk, the next call with the cookie continues after the last visited entries and wraps around. An
 * entry is visited in each round through the table that begins while it is stored. */
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
