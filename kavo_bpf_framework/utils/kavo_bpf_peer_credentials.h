#pragma once

// Who is at the other end of a Unix-domain connection, as the kernel recorded
// it when the peer called connect(): its pid, uid, gid (SO_PEERCRED) and its
// supplementary groups (SO_PEERGROUPS). A server endpoint reads them before
// anything else of a new connection, so that its owner can refuse a peer
// before a single byte of it is read.
//
// Thread-safe (no state).

#include <sys/types.h>

#include <vector>

#include "utils/kavo_bpf_export.h"

struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::vector<gid_t> groups;  // supplementary groups
};

// The credentials of the peer of the connected socket |fd|; false (errno
// set) when the kernel gives none.
KAVO_EXPORT bool ReadPeerCredentials(int fd, PeerCredentials* peer);
