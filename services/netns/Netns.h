#pragma once
// Sockets opened inside a named network namespace. A socket keeps the
// namespace it was created in, so the daemon serves every VRF namespace
// from its own thread without staying in any of them.
#include <string>

namespace Netns {

// The calling thread enters /run/netns/<ns> (nothing when ns is empty),
// creates the socket and returns to its own namespace. Returns the socket,
// or -1 with errno set (the namespace is missing, or socket() failed).
int socketIn( const std::string & ns, int domain, int type, int protocol );

} // namespace Netns
