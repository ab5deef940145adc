// An audit kernel at the other end of a real netlink socket.
//
// Linked into an executable, this module defines the calls by which libaudit sets the kernel up:
// they succeed and reach nothing. What the real audit_get_reply then reads are datagrams from
// another socket of this process, of the NETLINK_USERSOCK protocol, which needs no privileges.
// libaudit takes only messages from port 0, the kernel's, so recvfrom is defined as well and clears
// the sender's port.
#pragma once

#include "streams.h"

namespace bench {

// The descriptor that the library reads, -1 while it is not started.
int kernel_socket();

// Sends a record to the library as the kernel does: its length without the header. Returns false
// when the socket's buffer is full.
bool send_record(const Record& record);

}  // namespace bench
