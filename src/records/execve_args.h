// Reassembly of a program's arguments from AUDIT_EXECVE records.
#pragma once

#include <cstdint>
#include <string_view>

#include "records/audit_ctx.h"

// Adds the arguments in the record `text` to the argument list of `ctx`. The group's first record
// gives the count; a list that does not fit into one record continues in the next ones. Returns
// false when the count is missing or not positive, or an announced length is not positive; what was
// added before stays.
bool add_execve_args(audit_ctx& ctx, std::string_view text);

// Fills every slot that no record has filled with an empty text. An incomplete split argument is
// dropped.
void complete_execve_args(audit_ctx& ctx);

// Frees an argument list and its texts; slots may be null. Keeps the longest array for the next
// list.
void free_args(char** argv, std::int32_t argc);

// Frees the array that free_args kept.
void free_spare_args();
