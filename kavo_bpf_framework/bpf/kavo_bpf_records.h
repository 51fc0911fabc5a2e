/*
 * Record and map layouts shared by the kernel-side programs (BPF C, built
 * against vmlinux.h) and the service (C++). Everything is little-endian and
 * packed by construction: every field sits at its natural alignment, so no
 * compiler inserts padding, and the asserts below pin sizes and offsets.
 *
 * Ring-buffer record header (every record):
 *
 *   0        4        8                16
 *   +--------+--------+----------------+------------------
 *   |  type  |  pad   |  time (ns)     |  payload ...
 *   +--------+--------+----------------+------------------
 *   u32 type 0..7, u64 CLOCK_BOOTTIME nanoseconds (bpf_ktime_get_boot_ns)
 */
#ifndef KAVO_BPF_RECORDS_H
#define KAVO_BPF_RECORDS_H

#ifdef __VMLINUX_H__
/* BPF side: the kernel's types come from vmlinux.h. */
#define KAVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else
#include <linux/types.h>
#ifdef __cplusplus
#define KAVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KAVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
#endif

#define KAVO_OFFSET(type, field) __builtin_offsetof(type, field)
#define KAVO_COMM_LEN 16

/* Raw event types written by the programs (0 is built by the service). */
enum kavo_event_type {
  KAVO_EVENT_TASK_INIT = 0,       /* "kavo_task_init" */
  KAVO_EVENT_RSS_STAT = 1,        /* "kmem_rss_info" */
  KAVO_EVENT_TASK_CREATE = 2,     /* "sched_task_create" */
  KAVO_EVENT_TASK_EXIT = 3,       /* "sched_task_exit" */
  KAVO_EVENT_DMABUF_SIZE = 4,     /* "dmabuf_size_info" */
  KAVO_EVENT_CGROUP_ATTACH = 5,   /* "cgroup_attach_cpuset_info" */
  KAVO_EVENT_FD_UPDATE = 6,       /* "fd_update_info" */
  KAVO_EVENT_DMABUF_UPDATE = 7,   /* "dmabuf_update" */
  KAVO_EVENT_RAW_MAX = 7,
};

/* Events the service derives from its task table. */
enum kavo_derived_event_type {
  KAVO_EVENT_PROCESS_CREATED = 50001,
  KAVO_EVENT_PROCESS_EXITED = 50002,
  KAVO_EVENT_THREAD_COUNT_CHANGED = 50003,
  KAVO_EVENT_MEMORY_CHANGED = 50004,
};

/* Kind field of the fork and exit records. */
enum kavo_task_kind {
  KAVO_TASK_PROCESS = 1,
  KAVO_TASK_THREAD = 2,
};

/* RSS member indexes, as the kernel numbers its mm counters. */
enum kavo_rss_member {
  KAVO_RSS_FILE = 0,
  KAVO_RSS_ANON = 1,
  KAVO_RSS_SWAP = 2,
  KAVO_RSS_SHMEM = 3,
  KAVO_RSS_MEMBERS = 4,
};

struct kavo_event_header {
  __u32 type;
  __u32 pad;
  __u64 time_ns;
};

/* Type 0: one running process, built by the service's initial scan. */
struct kavo_task_init_event {
  struct kavo_event_header header;
  __s32 pid;
  __s32 ppid;
  __s32 uid;
  __s32 thread_count;
  char comm[KAVO_COMM_LEN];
  __s64 rss_file;
  __s64 rss_anon;
  __s64 rss_shmem; /* note: shared memory before swap in this record */
  __s64 rss_swap;
  __s64 start_time; /* seconds on the service's seconds clock */
};

/* Type 1: one mm counter of the current task's own address space changed. */
struct kavo_rss_event {
  struct kavo_event_header header;
  __s32 pid;    /* thread-group id */
  __s32 member; /* enum kavo_rss_member */
  __s64 size;   /* new value in bytes */
};

/* Type 2: a new process (pid = child) or a new thread (pid = owning process). */
struct kavo_fork_event {
  struct kavo_event_header header;
  __s32 ppid; /* 0 when the kernel side could not tell */
  __s32 pid;
  __s32 uid;
  char comm[KAVO_COMM_LEN];
  __u32 kind; /* enum kavo_task_kind */
};

/* Type 3: a process ended (last thread) or one of its threads did. */
struct kavo_exit_event {
  struct kavo_event_header header;
  __s32 pid; /* thread-group id */
  char comm[KAVO_COMM_LEN];
  __u32 kind; /* enum kavo_task_kind */
};

/* Type 4: a dma-buf was set up (exported); its size is known from now on. */
struct kavo_dmabuf_size_event {
  struct kavo_event_header header;
  __s32 pid; /* the exporting process, which is charged with the buffer */
  __u32 reserved;
  __u64 inode;
  __s64 size;
  __s64 process_total; /* bytes charged to the process (dmabuf_size_map) after it */
  char comm[KAVO_COMM_LEN];
};

/* Type 5: a task was attached to a cgroup. */
#define KAVO_CGROUP_PATH_LEN 64
struct kavo_cgroup_attach_event {
  struct kavo_event_header header;
  __s32 pid; /* thread id of the moved task */
  __s32 dst_level;
  __u64 dst_id;
  char comm[KAVO_COMM_LEN];
  char dst_path[KAVO_CGROUP_PATH_LEN]; /* NUL-terminated, cut to fit */
};

/* Type 6: a process's count of open descriptors changed by a report step. */
struct kavo_fd_update_event {
  struct kavo_event_header header;
  __s32 pid;
  __u32 reserved;
  __u64 fd_count;          /* counted from the process's descriptor table */
  __u64 reported_fd_count; /* the count at the previous report */
  char comm[KAVO_COMM_LEN];
};

/* Type 7: a process attached or mapped a dma-buf, a buffer was freed, or a
 * process that used dma-bufs ended. pid is the process concerned (for a
 * release the one charged with the buffer; comm is only filled in when it is
 * the current process); process_total is its dmabuf_perprocess_size_map total
 * after the change. A process exit has inode 0, size = the bytes it still
 * used, total 0. */
enum kavo_dmabuf_action {
  KAVO_DMABUF_ATTACH = 1,
  KAVO_DMABUF_VMAP = 2,
  KAVO_DMABUF_MMAP = 3,
  KAVO_DMABUF_RELEASE = 4,
  KAVO_DMABUF_PROCESS_EXIT = 5,
};
struct kavo_dmabuf_update_event {
  struct kavo_event_header header;
  __s32 pid;
  __u32 action; /* enum kavo_dmabuf_action */
  __u64 inode;
  __s64 size;
  __s64 process_total;
  char comm[KAVO_COMM_LEN];
};

/* Derived 50001: process created. */
struct kavo_process_created_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __s32 uid;
  char comm[KAVO_COMM_LEN];
};

/* Derived 50002: process exited (comm of the exit record). */
struct kavo_process_exited_event {
  __u32 type;
  __s32 pid;
  char comm[KAVO_COMM_LEN];
};

/* Derived 50003: thread count changed since the last report. */
struct kavo_thread_count_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __s32 uid;
  __s32 old_thread_count;
  __s32 thread_count;
};

/* Derived 50004: memory changed since the last report (member order). */
struct kavo_memory_changed_event {
  __u32 type;
  __s32 pid;
  __s32 ppid;
  __s32 uid;
  char comm[KAVO_COMM_LEN];
  __s64 size[KAVO_RSS_MEMBERS];
  __s64 old_size[KAVO_RSS_MEMBERS];
};

/* ---- Maps ------------------------------------------------------------- */

/* Ring status map: u32 key -> u64 value. */
enum kavo_ring_status_key {
  KAVO_RING_STATUS_CONTROL = 0,
  KAVO_RING_STATUS_AVAIL_DATA = 1,
  KAVO_RING_STATUS_RING_SIZE = 2,
  KAVO_RING_STATUS_CONS_POS = 3,
  KAVO_RING_STATUS_PROD_POS = 4,
  KAVO_RING_STATUS_KEYS = 5,
};
/* Bits of the control word. */
#define KAVO_RING_FULL_BIT 0x1ULL
#define KAVO_RING_CORE_ENABLED_BIT 0x2ULL
#define KAVO_RING_NORMAL_ENABLED_BIT 0x4ULL

/* ring_stats: per-CPU u64 counters of what the set's programs wrote, u32 key.
 * They let a reader tell how many records the kernel produced, and how many
 * it could not place, without consuming any. The service reads the lost keys
 * only when its objects have no ringbuf_lost, to say how many were lost.
 *
 *   key t       (0..7)   records of type t written into the ring
 *   key 8 + t   (8..15)  records of type t lost: the ring was full
 */
#define KAVO_RING_STATS_LOST_BASE 8
#define KAVO_RING_STATS_KEYS 16

/* ringbuf_lost: one u64 (key 0), the records the set's programs could not
 * reserve since it was loaded; mapped read-only by the service. */
#define KAVO_RING_LOST_KEY 0

/* ringbuf_consumer: one u64 (key 0), written by the ring's consumer through
 * a shared mapping: the boot time in ns (the records' clock) until which it
 * is awake and will look at the ring again before it waits; 0 while it
 * waits, or when it does not say. Records stamped before that time are
 * submitted without waking it (kavo_bpf_ring.bpf.h). */
#define KAVO_RING_CONSUMER_KEY 0

/* open_fd_caller_map: key s32 pid. The program on fd_install counts each
 * install and, once the count moved KAVO_FD_REPORT_STEP from the last report,
 * recounts the descriptor table and writes a type-6 record if the exact count
 * is still that far from it. */
#define KAVO_FD_REPORT_STEP 64
struct kavo_fd_info {
  __s32 pid;
  __u32 reserved;
  __u64 fd_count;
  __u64 reported_fd_count;
  __u64 reserved2;
  char comm[KAVO_COMM_LEN];
};

/* dmabuf_allocate_map: key u64 inode. */
struct kavo_dmabuf_buffer {
  __s32 pid; /* a process that holds a descriptor of the buffer */
  __u32 reserved;
  __s64 size;
};

/* dmabuf_size_map and dmabuf_perprocess_size_map: key s32 pid. */
struct dmabuf_stat {
  __s64 total;
  __s64 reserved;
};

/* process_inode_map and process_mmap_infos: key (pid, inode). */
struct kavo_process_inode_key {
  __s32 pid;
  __u32 reserved;
  __u64 inode;
};
/* process_inode_map value: the process uses the buffer (it exported,
 * attached or mapped it); the buffer's bytes count once in the process's
 * dmabuf_perprocess_size_map total however often it is used. */
struct kavo_process_inode_info {
  __s32 fd_count; /* uses seen */
  __u32 reserved;
  __s64 size;     /* the buffer's size */
};
/* process_mmap_infos value: mappings of the buffer in the process. */
struct kavo_process_mmap_info {
  __s32 map_count;
  __u32 reserved;
  __u64 last_start; /* start address of the newest mapping */
};

KAVO_STATIC_ASSERT(sizeof(struct kavo_event_header) == 16, "record header");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_event_header, time_ns) == 8, "record header");
KAVO_STATIC_ASSERT(sizeof(struct kavo_task_init_event) == 88, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, pid) == 16, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, comm) == 32, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, rss_file) == 48, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, rss_shmem) == 64, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, rss_swap) == 72, "task init record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_task_init_event, start_time) == 80, "task init record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_rss_event) == 32, "rss record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_rss_event, member) == 20, "rss record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_rss_event, size) == 24, "rss record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_fork_event) == 48, "fork record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_fork_event, pid) == 20, "fork record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_fork_event, comm) == 28, "fork record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_fork_event, kind) == 44, "fork record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_exit_event) == 40, "exit record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_exit_event, comm) == 20, "exit record");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_exit_event, kind) == 36, "exit record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_dmabuf_size_event) == 64, "dmabuf size record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_cgroup_attach_event) == 112, "cgroup record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_fd_update_event) == 56, "fd update record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_dmabuf_update_event) == 64, "dmabuf update record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_process_created_event) == 32, "50001");
KAVO_STATIC_ASSERT(sizeof(struct kavo_process_exited_event) == 24, "50002");
KAVO_STATIC_ASSERT(sizeof(struct kavo_thread_count_event) == 24, "50003");
KAVO_STATIC_ASSERT(sizeof(struct kavo_memory_changed_event) == 96, "50004");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_memory_changed_event, size) == 32, "50004");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_memory_changed_event, old_size) == 64, "50004");
KAVO_STATIC_ASSERT(sizeof(struct kavo_fd_info) == 48, "fd map value");
KAVO_STATIC_ASSERT(KAVO_OFFSET(struct kavo_fd_info, comm) == 32, "fd map value");
KAVO_STATIC_ASSERT(sizeof(struct kavo_dmabuf_buffer) == 16, "dmabuf buffer record");
KAVO_STATIC_ASSERT(sizeof(struct dmabuf_stat) == 16, "dmabuf process record");
KAVO_STATIC_ASSERT(sizeof(struct kavo_process_inode_key) == 16, "process inode key");
KAVO_STATIC_ASSERT(sizeof(struct kavo_process_inode_info) == 16, "process inode value");
KAVO_STATIC_ASSERT(sizeof(struct kavo_process_mmap_info) == 16, "process mmap value");

#endif /* KAVO_BPF_RECORDS_H */
