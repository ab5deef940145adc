// The line on standard output that shows which rule the purge deleted.
#pragma once

#include <libaudit.h>

// Prints `rule` as one line in the style of the audit tools. `rule` is as the kernel listed it,
// with `buflen` readable bytes in `buf`.
void print_rule_line(const audit_rule_data& rule);
