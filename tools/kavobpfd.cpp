// kavobpfd: the Linux host process of libkavobpfservice.so. It plays the part
// of the platform around the library: it sets system properties in-process,
// decides who may use the socket (on a device the platform's security policy
// does), reports the kernel side ready once the loader has pinned both ring
// buffers, starts the service and stops it cleanly on SIGINT or SIGTERM.

#include <android-base/properties.h>
#include <getopt.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kavobpf_kernel_version.h"
#include "service/kavo_bpf_client_policy.h"
#include "service/kavo_bpf_service.h"

namespace {

using Kavo::Bpf::KavoBpfService;

constexpr char kReadyProperty[] = "sys.kavo_bpf_ready";
constexpr char kKernelVersionProperty[] = "ro.kernel.version";
// Members of this group may use the socket, when the group exists.
constexpr char kDefaultGroup[] = "kavobpf";
// After a stop request the process is gone within this time, whatever the
// service threads are doing.
constexpr int kExitDeadlineMs = 1800;

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: kavobpfd [--prop NAME=VALUE]... [--allow-uid UID]... [--allow-group NAME]\n"
          "                [--allow-all] [--seed-fd] [--help]\n"
          "\n"
          "Hosts the KAVO BPF service (libkavobpfservice.so) on Linux: attaches the\n"
          "programs pinned under /sys/fs/bpf/kavo/, consumes their ring buffers and\n"
          "serves clients on the socket /mnt/bpfframework/kavobpfdispatcher.\n"
          "Stops on SIGINT or SIGTERM and exits 0.\n"
          "\n"
          "Who is served: root, the members of the group kavobpf (when it exists),\n"
          "and the users given with --allow-uid. Any other peer is closed as soon as\n"
          "it connects, before anything of it is read, and logged.\n"
          "\n"
          "Options:\n"
          "  --allow-uid UID    also serve this user (a number or a name); repeatable\n"
          "  --allow-group NAME serve the members of this group instead of kavobpf's\n"
          "                     (the group must exist)\n"
          "  --allow-all        serve every peer (no check; for a single-user machine)\n"
          "  --prop NAME=VALUE  set a system property before the service starts; may be\n"
          "                     repeated. Useful names:\n"
          "                       persist.sys.stability.bpfframework.disable  \"1\" disables\n"
          "                       ro.kernel.version   default: major.minor of the running\n"
          "                                           kernel (uname)\n"
          "                       sys.kavo_bpf_ready  default: set to \"1\" once both ring\n"
          "                                           buffers are pinned (checked every\n"
          "                                           second); give \"0\" to hold the service\n"
          "                                           before attaching\n"
          "  --seed-fd          once both program sets are attached, seed the open-fd\n"
          "                     map (map_KavoBpfDefineset_open_fd_caller_map) with every\n"
          "                     process's descriptor count from /proc\n"
          "\n"
          "The check is set through the properties %s\n"
          "and %s (comma-separated ids);\n"
          "given with --prop, they replace what the options above would set.\n"
          "  --help             show this text and exit\n",
          Kavo::Bpf::KAVO_ALLOWED_UIDS_PROPERTY, Kavo::Bpf::KAVO_ALLOWED_GIDS_PROPERTY);
}

[[noreturn]] void UsageError(const std::string& message) {
  fprintf(stderr, "kavobpfd: %s (see --help)\n", message.c_str());
  exit(2);
}

bool RingBuffersPinned() {
  struct stat st;
  for (const std::string& path : KavoBpfService::RINGBUF_MAP_PATH) {
    if (stat(path.c_str(), &st) != 0) return false;
  }
  return true;
}

// A user given by number or name.
bool ParseUid(const std::string& text, uid_t* uid) {
  char* end = nullptr;
  unsigned long number = strtoul(text.c_str(), &end, 10);
  if (!text.empty() && text[0] >= '0' && text[0] <= '9' && *end == '\0' &&
      number < static_cast<unsigned long>(static_cast<uid_t>(-1))) {
    *uid = static_cast<uid_t>(number);
    return true;
  }
  struct passwd* user = getpwnam(text.c_str());
  if (user == nullptr) return false;
  *uid = user->pw_uid;
  return true;
}

// Who may use the socket, unless the properties were given outright.
void SetClientPolicy(std::map<std::string, std::string>* properties, const std::vector<uid_t>& uids,
                     const std::string& group, bool groupGiven) {
  if (properties->count(Kavo::Bpf::KAVO_ALLOWED_UIDS_PROPERTY) != 0 ||
      properties->count(Kavo::Bpf::KAVO_ALLOWED_GIDS_PROPERTY) != 0) {
    return;
  }
  std::string list = "0";
  for (uid_t uid : uids) list += "," + std::to_string(uid);
  (*properties)[Kavo::Bpf::KAVO_ALLOWED_UIDS_PROPERTY] = list;
  struct group* allowed = getgrnam(group.c_str());
  if (allowed == nullptr && groupGiven) UsageError("no group named '" + group + "'");
  if (allowed != nullptr) (*properties)[Kavo::Bpf::KAVO_ALLOWED_GIDS_PROPERTY] = std::to_string(allowed->gr_gid);
}

[[noreturn]] void ExitNow(int code) {
  fflush(stdout);
  fflush(stderr);
  _exit(code);
}

}  // namespace

int main(int argc, char** argv) {
#ifdef M_ARENA_MAX
  // One malloc arena for the whole process. glibc gives each thread that
  // allocates an arena of its own; the service's threads allocate little and
  // never on their hot paths (a record, a send), so separate arenas buy no
  // speed and each keeps its own partly used pages.
  mallopt(M_ARENA_MAX, 1);
#endif
  std::map<std::string, std::string> properties;
  bool seedFd = false;
  std::vector<uid_t> allowedUids;
  std::string allowedGroup = kDefaultGroup;
  bool groupGiven = false;
  bool allowAll = false;
  static const struct option kOptions[] = {
      {"prop", required_argument, nullptr, 'p'},
      {"allow-uid", required_argument, nullptr, 'u'},
      {"allow-group", required_argument, nullptr, 'g'},
      {"allow-all", no_argument, nullptr, 'a'},
      {"seed-fd", no_argument, nullptr, 'f'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  int opt;
  while ((opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (opt) {
      case 'p': {
        std::string assignment(optarg);
        size_t eq = assignment.find('=');
        if (eq == 0 || eq == std::string::npos) {
          UsageError("--prop needs NAME=VALUE, got '" + assignment + "'");
        }
        properties[assignment.substr(0, eq)] = assignment.substr(eq + 1);
        break;
      }
      case 'u': {
        uid_t uid;
        if (!ParseUid(optarg, &uid)) UsageError(std::string("--allow-uid: no user '") + optarg + "'");
        allowedUids.push_back(uid);
        break;
      }
      case 'g':
        allowedGroup = optarg;
        groupGiven = true;
        break;
      case 'a':
        allowAll = true;
        break;
      case 'f':
        seedFd = true;
        break;
      case 'h':
        PrintUsage(stdout);
        return 0;
      case '?':
        if (optopt == 'p') UsageError("--prop needs NAME=VALUE");
        if (optopt == 'u') UsageError("--allow-uid needs a user");
        if (optopt == 'g') UsageError("--allow-group needs a group name");
        UsageError(std::string("unknown option '") + argv[optind - 1] + "'");
      default:
        UsageError("bad arguments");
    }
  }
  if (optind < argc) UsageError(std::string("unexpected argument '") + argv[optind] + "'");

  if (properties.count(kKernelVersionProperty) == 0) {
    properties[kKernelVersionProperty] = kavo::RunningKernelVersion();
  }
  if (!allowAll) SetClientPolicy(&properties, allowedUids, allowedGroup, groupGiven);
  // What the service writes under /data names every process on the machine:
  // for root's eyes only.
  umask(077);
  bool signalReady = properties.count(kReadyProperty) == 0;
  if (signalReady) properties[kReadyProperty] = "0";
  for (const auto& [name, value] : properties) android::base::SetProperty(name, value);

  // Every thread the service starts inherits this mask, so the stop signals
  // reach this thread alone, through sigtimedwait.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  if (!Kavo::Bpf::BpfServiceMain()) {
    fprintf(stderr, "kavobpfd: the service is disabled by property\n");
    return 0;
  }

  KavoBpfService* service = KavoBpfService::GetInstance();
  // Once both producer threads are past their start-up (the programs are
  // attached), a thread of its own seeds the fd map if asked and then runs
  // the service's supervision, Wait(), until the stop. Not earlier: Wait()
  // starts any producer thread whose slot is still empty, and the first
  // producer thread fills the second slot itself during its start-up. This
  // thread sleeps meanwhile, so that this one sleeps in sigwait and nothing
  // here wakes up on a timer.
  std::atomic<bool> supervising{false};
  std::thread supervisor([service, seedFd, &supervising] {
    // Returns at the attachment or at a stop; the period only bounds how
    // long a service that never attaches is waited for between checks.
    while (!service->waitProgramsAttached(std::chrono::hours(1))) {
      if (!service->isRunning()) return;
    }
    if (seedFd) service->initFdBpfProg();
    supervising = true;
    service->Wait();
  });
  int sig = 0;
  // The platform's loader reports readiness the same way, once a second.
  while (signalReady) {
    if (RingBuffersPinned()) {
      android::base::SetProperty(kReadyProperty, "1");
      break;
    }
    struct timespec second = {1, 0};
    sig = sigtimedwait(&stopSignals, nullptr, &second);
    if (sig == SIGINT || sig == SIGTERM) break;
  }
  while (sig != SIGINT && sig != SIGTERM) sig = sigwaitinfo(&stopSignals, nullptr);

  // Monitors blocked in a poll or a start-up step still under way must not
  // keep the process alive past its deadline.
  std::thread([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(kExitDeadlineMs));
    fprintf(stderr, "kavobpfd: service threads still busy, exiting anyway\n");
    ExitNow(0);
  }).detach();
  service->stop();
  supervisor.join();
  // The supervision joined the service's threads; without it, join them here.
  if (!supervising) service->Wait();
  ExitNow(0);
}
