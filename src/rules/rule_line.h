// The line on standard output by which the purge tells which rule it deleted.
#pragma once

#include <libaudit.h>

// Prints `rule` as one line in the manner of the audit tools. `rule` is as the kernel listed it,
// with `buflen` bytes of `buf` readable.
void print_rule_line(const audit_rule_data& rule);
