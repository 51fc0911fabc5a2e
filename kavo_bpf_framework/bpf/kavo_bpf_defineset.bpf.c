/*
 * Object set "KavoBpfDefineset": process lifecycle, memory and descriptor
 * programs feeding ring 0 of the service.
 *
 *   sched_sched_process_fork   type 2  core     new process or new thread
 *   sched_sched_process_exit   type 3  core     process or thread exit
 *   kmem_rss_stat              type 1  normal   an RSS counter of the current
 *                                               task's own address space
 *   sched_sched_switch         -       normal   per-CPU count only
 *   enter_fd_install (kprobe)  type 6  normal   open descriptors per process
 *
 * Core producers write only while bit 1 of the control word is set, normal
 * producers only while bit 2 is (see kavo_bpf_ring.bpf.h).
 *
 * enter_fd_install comes in two flavours with one body: the kprobe, and a
 * trampoline twin (fentry) for kernels without kprobes. The loader loads and
 * pins one of them under the kprobe's name (tools/kavobpf_loader.cpp).
 */
#include "bpf/kavo_bpf_ring.bpf.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

/* Largest number of processes the descriptor map follows. */
#define KAVO_MAX_PROCESSES 32768
/* Threads looked at, from the newest, to tell a new thread from a process. */
#define KAVO_THREAD_WALK_MAX 32
/* Words of the open-descriptor bitmap counted at most (64 descriptors each). */
#define KAVO_FD_SCAN_WORDS 256

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_PROCESSES);
  __type(key, __s32);
  __type(value, struct kavo_fd_info);
} open_fd_caller_map SEC(".maps");

/* Context switches per CPU while the normal producers are on. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} sched_switch_count SEC(".maps");

/* ---- sched_switch -------------------------------------------------------- */

/* Runs on every context switch: one array lookup and one per-CPU add. */
SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(void *ctx) {
  (void)ctx;
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __u32 key = 0;
  __u64 *count = bpf_map_lookup_elem(&sched_switch_count, &key);
  if (count != NULL) *count += 1;
  return 0;
}

/* ---- fork ------------------------------------------------------------------ */

/* Kernels before 6.7 link a group's threads through the leader's
 * thread_group list instead of signal->thread_head. */
struct task_struct___kavo_old {
  struct list_head thread_group;
} __attribute__((preserve_access_index));

/* Looks for |child| among the last threads of the list at |head|, whose
 * nodes sit |node_offset| bytes into each task. */
static __always_inline bool kavo_thread_list_has(struct list_head *head, __u64 node_offset,
                                                 pid_t child) {
  struct list_head *node = BPF_CORE_READ(head, prev);
  for (int i = 0; i < KAVO_THREAD_WALK_MAX; i++) {
    if (node == NULL || node == head) return false;
    struct task_struct *task = (struct task_struct *)((char *)node - node_offset);
    if (BPF_CORE_READ(task, pid) == child) return true;
    node = BPF_CORE_READ(node, prev);
  }
  return false;
}

/*
 * The classic tracepoint only names the child. copy_process() links a new
 * thread at the tail of its group's thread list before the tracepoint fires
 * (and before the child can run, so it cannot have gone yet); a new process
 * is never on the parent's list. So the child is a thread exactly when it is
 * among the parent's newest threads.
 *
 * Remaining race: if more than KAVO_THREAD_WALK_MAX other threads of the same
 * group are created on other CPUs between copy_process() linking the child
 * and this program running, the child slips past the walk and is reported
 * as a new process.
 */
static __always_inline bool kavo_fork_made_thread(struct task_struct *parent, pid_t child) {
  if (bpf_core_field_exists(struct signal_struct, thread_head)) {
    struct signal_struct *signal = BPF_CORE_READ(parent, signal);
    struct list_head *head = __builtin_preserve_access_index(&signal->thread_head);
    return kavo_thread_list_has(head, bpf_core_field_offset(struct task_struct, thread_node), child);
  }
  struct task_struct___kavo_old *leader = (void *)BPF_CORE_READ(parent, group_leader);
  struct list_head *head = __builtin_preserve_access_index(&leader->thread_group);
  return kavo_thread_list_has(head, bpf_core_field_offset(struct task_struct___kavo_old, thread_group),
                              child);
}

SEC("tracepoint/sched/sched_process_fork")
int sched_sched_process_fork(struct trace_event_raw_sched_process_fork *ctx) {
  if (!kavo_producer_enabled(KAVO_RING_CORE_ENABLED_BIT)) return 0;
  struct task_struct *parent = (struct task_struct *)bpf_get_current_task();
  pid_t child = ctx->child_pid;
  bool thread = kavo_fork_made_thread(parent, child);

  struct kavo_fork_event *record = KAVO_RESERVE(KAVO_EVENT_TASK_CREATE, struct kavo_fork_event);
  if (record == NULL) return 0;
  if (thread) {
    /* The process that owns the new thread, and that process's parent. */
    record->pid = kavo_current_tgid();
    record->ppid = BPF_CORE_READ(parent, real_parent, tgid);
    record->kind = KAVO_TASK_THREAD;
  } else {
    record->pid = child;
    record->ppid = kavo_current_tgid();
    record->kind = KAVO_TASK_PROCESS;
  }
  record->uid = (__s32)(bpf_get_current_uid_gid() & 0xffffffff);
  /* The child still carries the parent's name at this point. */
  bpf_get_current_comm(record->comm, sizeof(record->comm));
  kavo_submit(record);
  return 0;
}

/* ---- exit ------------------------------------------------------------------ */

SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx) {
  __s32 tgid = kavo_current_tgid();
  bool group_dead = kavo_exit_is_group_dead(ctx);
  /* Keep the descriptor map to live processes, whatever the producer bits. */
  if (group_dead) bpf_map_delete_elem(&open_fd_caller_map, &tgid);
  if (!kavo_producer_enabled(KAVO_RING_CORE_ENABLED_BIT)) return 0;

  struct kavo_exit_event *record = KAVO_RESERVE(KAVO_EVENT_TASK_EXIT, struct kavo_exit_event);
  if (record == NULL) return 0;
  record->pid = tgid;
  record->kind = group_dead ? KAVO_TASK_PROCESS : KAVO_TASK_THREAD;
  bpf_get_current_comm(record->comm, sizeof(record->comm));
  kavo_submit(record);
  return 0;
}

/* ---- rss_stat -------------------------------------------------------------- */

/* The tracepoint also fires when a task changes another process's counters
 * (reclaim, process_madvise, ...); those are not the current process's. */
SEC("tracepoint/kmem/rss_stat")
int kmem_rss_stat(struct trace_event_raw_rss_stat *ctx) {
  if (!ctx->curr) return 0;
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  struct kavo_rss_event *record = KAVO_RESERVE(KAVO_EVENT_RSS_STAT, struct kavo_rss_event);
  if (record == NULL) return 0;
  record->pid = kavo_current_tgid();
  record->member = ctx->member;
  record->size = ctx->size;
  kavo_submit(record);
  return 0;
}

/* ---- fd_install ------------------------------------------------------------ */

/* Open descriptors of the current process, from its descriptor bitmap (the
 * first KAVO_FD_SCAN_WORDS * 64 descriptors). */
static __always_inline __u64 kavo_count_open_fds(void) {
  struct task_struct *task = (struct task_struct *)bpf_get_current_task();
  struct fdtable *fdt = BPF_CORE_READ(task, files, fdt);
  if (fdt == NULL) return 0;
  __u32 words = BPF_CORE_READ(fdt, max_fds) / 64;
  unsigned long *open_fds = BPF_CORE_READ(fdt, open_fds);
  __u64 count = 0;
  for (__u32 i = 0; i < KAVO_FD_SCAN_WORDS && i < words; i++) {
    __u64 bits = 0;
    bpf_probe_read_kernel(&bits, sizeof(bits), open_fds + i);
    count += __builtin_popcountll(bits);
  }
  return count;
}

/*
 * fd_install() only sees descriptors arriving, so the count grows by one per
 * install; once it has run KAVO_FD_REPORT_STEP away from the last report it
 * is replaced by the exact count from the descriptor bitmap (which also
 * accounts for closes), and reported if the exact count still differs that
 * much. A process that opens and closes in a loop thus costs one bitmap scan
 * per KAVO_FD_REPORT_STEP installs. Threads of one process update the entry
 * without a lock; a lost increment is corrected by the next exact count.
 */
static __always_inline int kavo_fd_installed(void) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __s32 tgid = kavo_current_tgid();
  struct kavo_fd_info *info = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
  if (info == NULL) {
    /* First descriptor seen of a process the seeding did not know. */
    struct kavo_fd_info fresh = {};
    fresh.pid = tgid;
    fresh.fd_count = kavo_count_open_fds();
    fresh.reported_fd_count = fresh.fd_count;
    bpf_get_current_comm(fresh.comm, sizeof(fresh.comm));
    bpf_map_update_elem(&open_fd_caller_map, &tgid, &fresh, BPF_NOEXIST);
    return 0;
  }
  __u64 count = __sync_fetch_and_add(&info->fd_count, 1) + 1;
  __u64 reported = info->reported_fd_count;
  if (count < reported + KAVO_FD_REPORT_STEP && count + KAVO_FD_REPORT_STEP > reported) return 0;

  count = kavo_count_open_fds();
  info->fd_count = count;
  if (count < reported + KAVO_FD_REPORT_STEP && count + KAVO_FD_REPORT_STEP > reported) return 0;
  info->reported_fd_count = count;

  struct kavo_fd_update_event *record = KAVO_RESERVE(KAVO_EVENT_FD_UPDATE, struct kavo_fd_update_event);
  if (record == NULL) return 0;
  record->pid = tgid;
  record->fd_count = count;
  record->reported_fd_count = reported;
  bpf_get_current_comm(record->comm, sizeof(record->comm));
  kavo_submit(record);
  return 0;
}

SEC("kprobe/fd_install")
int BPF_KPROBE(enter_fd_install) {
  (void)ctx;
  return kavo_fd_installed();
}

/* The same on a BPF trampoline: the loader pins it in the kprobe's place
 * where the kernel cannot attach kprobes but loads a trampoline on
 * fd_install. */
SEC("fentry/fd_install")
int BPF_PROG(enter_fd_install__fentry) {
  (void)ctx;
  return kavo_fd_installed();
}
