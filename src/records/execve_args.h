// Reassembly of a program's arguments from AUDIT_EXECVE records.
#pragma once

#include <cstdint>
#include <string_view>

#include "records/audit_ctx.h"

// Adds what the record `text` tells to the argument list of `ctx`. The group's first record gives
// the count; a list that does not fit one record goes on in the next ones. Returns false, and
// leaves what came before, when the count is missing or not positive or an announced length is not
// positive.
bool add_execve_args(audit_ctx& ctx, std::string_view text);

// Fills every slot that no record has filled with an empty text. A split argument that is not
// complete is dropped.
void complete_execve_args(audit_ctx& ctx);

// Frees an argument list with its texts; slots may be null. Keeps the longest array for the next
// list.
void free_args(char** argv, std::int32_t argc);

// Frees the array that free_args kept.
void free_spare_args();
