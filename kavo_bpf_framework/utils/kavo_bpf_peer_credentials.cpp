#include "utils/kavo_bpf_peer_credentials.h"

#include <errno.h>
#include <sys/socket.h>

bool ReadPeerCredentials(int fd, PeerCredentials* peer) {
  struct ucred cred = {};
  socklen_t length = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) return false;
  peer->pid = cred.pid;
  peer->uid = cred.uid;
  peer->gid = cred.gid;
  // Most peers have a handful of groups; the kernel says how many when the
  // room given is short.
  peer->groups.resize(16);
  while (true) {
    length = static_cast<socklen_t>(peer->groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, peer->groups.data(), &length) == 0) break;
    if (errno != ERANGE || length <= peer->groups.size() * sizeof(gid_t)) return false;
    peer->groups.resize(length / sizeof(gid_t));
  }
  peer->groups.resize(length / sizeof(gid_t));
  return true;
}
