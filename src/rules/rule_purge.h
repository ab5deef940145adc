// The purge of the kernel's rules, at start and at stop.
#pragma once

// Deletes every rule that the kernel has, whoever loaded it, and prints a line for each on standard
// output: a rule without one of our keys only makes records that nobody reads, and rules of an
// earlier run would load twice. Returns false when the list could not be had or a rule could not be
// deleted; the rules before that one are gone then.
bool delete_all_audit_rules();
