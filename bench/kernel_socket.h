// An audit kernel at the other end of a real netlink socket.
//
// Linked into an executable, this module defines the calls by which libaudit sets the kernel up.
// They succeed and do nothing. The real audit_get_reply then reads datagrams from another socket of
// this process. That socket has the NETLINK_USERSOCK protocol, which needs no privileges. libaudit
// accepts only messages from port 0, the kernel's, so recvfrom is defined as well and clears the
// sender's port.
#pragma once

#include "streams.h"

namespace bench {

// The descriptor that the library reads, or -1 while the library is not started.
int kernel_socket();

// Sends a record to the library as the kernel does: the header is left out of the record's length.
// Returns false when the socket's buffer is full.
bool send_record(const Record& record);

}  // namespace bench
