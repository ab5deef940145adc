// The purge of the kernel's rules, at start and at stop.
#pragma once

// Deletes every rule that the kernel has, whoever loaded it, and prints a line for each on standard
// output. A rule without one of this library's keys only produces records that nobody reads, and
// rules of an earlier run would be loaded twice. Returns false when the list could not be read or a
// rule could not be deleted; the rules before that one are gone by then.
bool delete_all_audit_rules();
