// The program catalogue and the fixed paths of the service. All of it is
// built when the library is loaded and never changes.

#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

// Descriptor: {program name, category or kernel function, event, kernel compatibility}.
const KavoBpfProgTable KavoBpfService::PROG_EVENT_MAP = {
    {"KavoBpfDefineset",
     {
         {KAVO_ATTACH_TRACEPOINT,
          {
              {"sched_sched_switch", "sched", "sched_switch", "5.0+"},
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"},
              {"kmem_rss_stat", "kmem", "rss_stat", "5.0+"},
          }},
         {KAVO_ATTACH_KPROBE,
          {
              {"enter_fd_install", "fd_install", "", "5.0+"},
          }},
         {KAVO_ATTACH_KRETPROBE, {}},
     }},
};

// The exit tracepoint is in both sets on purpose: each set has its own ring
// and its own exit program.
const KavoBpfProgTable KavoBpfService::PROG_GPL_EVENT_MAP = {
    {"KavoBpfGplDefineset",
     {
         {KAVO_ATTACH_TRACEPOINT,
          {
              {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
              {"cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task", "5.0+"},
          }},
         {KAVO_ATTACH_KPROBE,
          {
              {"dma_buf_file_release", "dma_buf_file_release", "", "6.1+"},
              {"dma_buf_stats_setup", "dma_buf_stats_setup", "", "6.1+"},
              {"dma_buf_dynamic_attach", "dma_buf_dynamic_attach", "", "6.1+"},
              {"dma_buf_vmap", "dma_buf_vmap", "", "6.1+"},
              {"dma_buf_mmap_internal", "dma_buf_mmap_internal", "", "6.1+"},
          }},
     }},
};

const std::string KavoBpfService::PROC_FS_PATH = "/proc";
const std::string KavoBpfService::SUBTASK_PATH_TEMPLATE = "/proc/%s/task";
const std::string KavoBpfService::TASK_STATUS_TEMPLATE = "/proc/%s/status";
const std::string KavoBpfService::TASK_STATUS_PID_TEMPLATE = "/proc/%d/status";
const std::string KavoBpfService::TASK_STAT_TEMPLATE = "/proc/%s/stat";
const std::string KavoBpfService::TASK_MAPS_TEMPLATE = "/proc/%s/maps";
const std::string KavoBpfService::TASK_FD_TEMPLATE = "/proc/%s/fd";
const std::string KavoBpfService::TASK_FDINFO_TEMPLATE = "/proc/%s/fdinfo/%s";
const std::string KavoBpfService::TASK_COMM_PREFIX = "Name:\t";
const std::string KavoBpfService::TASK_PPID_PREFIX = "PPid:\t";
const std::string KavoBpfService::TASK_PROC_UID_PREFIX = "Uid:\t";
const std::string KavoBpfService::TASK_RSS_ANON_PREFIX = "RssAnon:\t";
const std::string KavoBpfService::TASK_RSS_FILE_PREFIX = "RssFile:\t";
const std::string KavoBpfService::TASK_RSS_SHMEM_PREFIX = "RssShmem:\t";
const std::string KavoBpfService::TASK_VM_SWAP_PREFIX = "VmSwap:\t";
const std::string KavoBpfService::TASK_DMABUF_PREFIX = "/dmabuf";
const std::string KavoBpfService::TASK_DMABUF_SIZE_PREFIX = "size:\t";
const std::string KavoBpfService::TASK_DMABUF_INO_PREFIX = "ino:\t";
const std::string KavoBpfService::BPF_FS_PATH = "/sys/fs/bpf/kavo";
const std::string KavoBpfService::KAVO_BPF_READY = "sys.kavo_bpf_ready";
const std::string KavoBpfService::DMABUF_BPF_PROCESS_INODE_MAP_PATH =
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_process_inode_map";
const std::string KavoBpfService::DMABUF_BPF_PROCESS_MMAP_INFOS_PATH =
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_process_mmap_infos";
// The pinned-path format adds its own '/', so pinned paths hold a double slash.
const std::string KavoBpfService::BPF_PROG_DIR = "/sys/fs/bpf/kavo/";
const std::string KavoBpfService::RINGBUF_MAP_PATH[kRingCount] = {
    "/sys/fs/bpf/kavo/map_KavoBpfDefineset_ringbuf_map",
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_ringbuf_map",
};
const std::string KavoBpfService::RINGBUF_STATUS_PATH[kRingCount] = {
    "/sys/fs/bpf/kavo/map_KavoBpfDefineset_ringbuf_status",
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_ringbuf_status",
};
const std::string KavoBpfService::RINGBUF_LOST_PATH[kRingCount] = {
    "/sys/fs/bpf/kavo/map_KavoBpfDefineset_ringbuf_lost",
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_ringbuf_lost",
};
const std::string KavoBpfService::RINGBUF_CONSUMER_PATH[kRingCount] = {
    "/sys/fs/bpf/kavo/map_KavoBpfDefineset_ringbuf_consumer",
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_ringbuf_consumer",
};
const std::string KavoBpfService::RING_STATS_PATH[kRingCount] = {
    "/sys/fs/bpf/kavo/map_KavoBpfDefineset_ring_stats",
    "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_ring_stats",
};
const char* const KavoBpfService::EVENT_TYPE_NAMES[KAVO_EVENT_RAW_MAX + 1] = {
    "kavo_task_init",   "kmem_rss_info",             "sched_task_create", "sched_task_exit",
    "dmabuf_size_info", "cgroup_attach_cpuset_info", "fd_update_info",    "dmabuf_update",
};

}  // namespace Kavo::Bpf
