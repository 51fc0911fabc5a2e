#pragma once

// Which peers the service serves on its socket. On a device the platform's
// security policy decides who may open the socket, and the service serves
// every peer that got through. Where nothing guards the socket (a Linux host,
// where it is bound in the abstract namespace), the host sets either or both
// of these properties, each a comma-separated list of numbers:
//
//   "persist.sys.stability.bpfframework.allowed_uids"  peers running as one of these uids
//   "persist.sys.stability.bpfframework.allowed_gids"  peers in one of these groups
//                                                      (primary or supplementary)
//
// Once either is set, only the peers they name are served; an entry that is
// not a number names nobody (it is logged and skipped), so a mistyped list
// lets in fewer peers, never more. With neither set, every peer is served.
//
// Immutable once read; safe to use from any thread.

#include <sys/types.h>

#include <set>
#include <string>

#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_peer_credentials.h"

namespace Kavo::Bpf {

KAVO_EXPORT extern const char* const KAVO_ALLOWED_UIDS_PROPERTY;
KAVO_EXPORT extern const char* const KAVO_ALLOWED_GIDS_PROPERTY;

class ClientPolicy {
 public:
  // Serves every peer.
  ClientPolicy() = default;
  static ClientPolicy FromProperties();

  bool restricted() const { return restricted_; }
  bool allows(const PeerCredentials& peer) const;
  // "uids 0,1000; gids 998", for the log.
  std::string describe() const;

 private:
  bool restricted_ = false;
  std::set<uid_t> uids_;
  std::set<gid_t> gids_;
};

}  // namespace Kavo::Bpf
