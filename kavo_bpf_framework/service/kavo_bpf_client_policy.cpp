#include "service/kavo_bpf_client_policy.h"

#include <android-base/properties.h>
#include <android/log.h>

#include "utils/kavo_bpf_helper_string.h"

namespace Kavo::Bpf {

const char* const KAVO_ALLOWED_UIDS_PROPERTY = "persist.sys.stability.bpfframework.allowed_uids";
const char* const KAVO_ALLOWED_GIDS_PROPERTY = "persist.sys.stability.bpfframework.allowed_gids";

namespace {

constexpr char kTag[] = "BpfService";

// The ids of a property's list; false when the property is not set.
template <typename Id>
bool ReadIds(const char* property, std::set<Id>* ids) {
  const std::string list = android::base::GetProperty(property, "");
  if (list.empty()) return false;
  for (const std::string& item : Split(list, ",")) {
    unsigned long long id;
    if (!IsDigits(item) || !ParseUnsignedDecimal(item, &id) || id >= static_cast<Id>(-1)) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService][ClientPolicy] %s: not an id: %s",
                          property, item.c_str());
      continue;
    }
    ids->insert(static_cast<Id>(id));
  }
  return true;
}

template <typename Id>
std::string Join(const std::set<Id>& ids) {
  std::string text;
  for (Id id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text.empty() ? "none" : text;
}

}  // namespace

ClientPolicy ClientPolicy::FromProperties() {
  ClientPolicy policy;
  const bool uids = ReadIds(KAVO_ALLOWED_UIDS_PROPERTY, &policy.uids_);
  const bool gids = ReadIds(KAVO_ALLOWED_GIDS_PROPERTY, &policy.gids_);
  policy.restricted_ = uids || gids;
  return policy;
}

bool ClientPolicy::allows(const PeerCredentials& peer) const {
  if (!restricted_ || uids_.count(peer.uid) != 0 || gids_.count(peer.gid) != 0) return true;
  for (gid_t group : peer.groups) {
    if (gids_.count(group) != 0) return true;
  }
  return false;
}

std::string ClientPolicy::describe() const {
  if (!restricted_) return "every peer";
  return "uids " + Join(uids_) + "; gids " + Join(gids_);
}

}  // namespace Kavo::Bpf
