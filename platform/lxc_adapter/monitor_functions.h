#pragma once

#include <cstddef>
#include <sys/un.h>

/// The four functions of liblxc 4.0.12 that later builds do not export any more, with 4.0.12's results.
/// All may be called on every thread.
extern "C" {

/// Writes the path of root's monitor FIFO for an LXC path to buf (size bytes), and makes its directories when
/// mkdirs is not 0. Returns 0, or -1 when the path does not fit or a directory cannot be made. Only root is
/// supported: for other users liblxc chooses another run directory.
int lxc_monitor_fifo_name(const char* lxcpath, char* buf, std::size_t size, int mkdirs) noexcept;

/// Fills in the publisher's abstract address for an LXC path. Returns 0, or -1 without memory.
int lxc_monitor_sock_name(const char* lxcpath, struct sockaddr_un* addr) noexcept;

/// Makes a close-on-exec Unix socket of the type, binds it to the abstract name that follows path's first
/// byte, and listens when it is a stream socket. A null path leaves the socket unbound. flags is not used.
/// Returns the descriptor, the caller's to close, or -1 with errno set.
int lxc_abstract_unix_open(const char* path, int type, int flags) noexcept;

/// The word of a state number, a static text; null for a number outside 0 to 7.
const char* lxc_state2str(int state) noexcept;
}
