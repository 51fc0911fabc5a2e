/*
 * Object set "KavoBpfGplDefineset": dma-buf accounting and cgroup moves,
 * feeding ring 1 of the service.
 *
 *   sched_sched_process_exit   type 7  core     a process holding dma-bufs ended
 *   cgroup_cgroup_attach_task  type 5  normal   a task moved to a cgroup
 *   dma_buf_stats_setup        type 4  normal   a buffer was exported
 *   dma_buf_dynamic_attach     type 7  normal   a process attached a buffer
 *   dma_buf_vmap               type 7  normal   a buffer was mapped by the kernel
 *   dma_buf_mmap_internal      type 7  normal   a process mapped a buffer
 *   dma_buf_file_release       type 7  normal   a buffer was freed
 *
 * Maps (the service seeds the first three from /proc at start):
 *
 *   dmabuf_allocate_map         inode -> {pid charged, size}
 *   dmabuf_size_map             pid -> bytes of buffers charged to the process
 *   dmabuf_perprocess_size_map  pid -> bytes of buffers the process uses
 *                               (charged, attached or mapped)
 *   process_inode_map           {pid, inode} -> {uses, size}: who uses what
 *   process_mmap_infos          {pid, inode} -> {mappings, last start address}
 *
 * Threads of a process update the totals with atomic adds; entries are
 * created without a lock, so two first uses racing may both count.
 *
 * Each dma-buf program comes in two flavours sharing one body: the kprobe,
 * and a trampoline twin (fentry) named <program>__fentry for kernels without
 * kprobes. The loader loads and pins one of them under the kprobe's name
 * (tools/kavobpf_loader.cpp). dma_buf_stats_setup has a second twin,
 * dma_buf_stats_setup__export, for kernels built without dma-buf sysfs
 * statistics, where that function does not exist (see there).
 */
/* This ring carries only the rare dma-buf, cgroup and exit-cleanup records:
 * 128 KiB holds over a thousand of them between two polls. */
#define KAVO_DEFAULT_RING_SIZE (128 * 1024)
#include "bpf/kavo_bpf_ring.bpf.h"

char LICENSE[] SEC("license") = "GPL";

#define KAVO_MAX_DMABUFS 8192
#define KAVO_MAX_DMABUF_PROCESSES 4096
/* Kept small: a buffer release walks process_inode_map. */
#define KAVO_MAX_DMABUF_USES 4096

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_DMABUFS);
  __type(key, __u64);
  __type(value, struct kavo_dmabuf_buffer);
} dmabuf_allocate_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_DMABUF_PROCESSES);
  __type(key, __s32);
  __type(value, struct dmabuf_stat);
} dmabuf_size_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_DMABUF_PROCESSES);
  __type(key, __s32);
  __type(value, struct dmabuf_stat);
} dmabuf_perprocess_size_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_DMABUF_USES);
  __type(key, struct kavo_process_inode_key);
  __type(value, struct kavo_process_inode_info);
} process_inode_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, KAVO_MAX_DMABUF_USES);
  __type(key, struct kavo_process_inode_key);
  __type(value, struct kavo_process_mmap_info);
} process_mmap_infos SEC(".maps");

/* ---- Totals ---------------------------------------------------------------- */

/* Adds |delta| to the total of |pid| in |map| (a dmabuf_stat map) and returns
 * the new total; an entry that drops to zero or below is removed. */
static __always_inline __s64 kavo_add_total(void *map, __s32 pid, __s64 delta) {
  struct dmabuf_stat *stat = bpf_map_lookup_elem(map, &pid);
  if (stat == NULL) {
    if (delta <= 0) return 0;
    struct dmabuf_stat fresh = {};
    bpf_map_update_elem(map, &pid, &fresh, BPF_NOEXIST);
    stat = bpf_map_lookup_elem(map, &pid);
    if (stat == NULL) return 0;
  }
  __s64 total = __sync_fetch_and_add(&stat->total, delta) + delta;
  if (total <= 0) {
    bpf_map_delete_elem(map, &pid);
    return 0;
  }
  return total;
}

static __always_inline __s64 kavo_total_of(void *map, __s32 pid) {
  struct dmabuf_stat *stat = bpf_map_lookup_elem(map, &pid);
  return stat == NULL ? 0 : stat->total;
}

/* The current process uses the buffer |inode|: counts the use and, on its
 * first use, adds the buffer to the process's total. Returns that total. */
static __always_inline __s64 kavo_note_use(__s32 pid, __u64 inode, __s64 size) {
  struct kavo_process_inode_key key = {.pid = pid, .inode = inode};
  struct kavo_process_inode_info *info = bpf_map_lookup_elem(&process_inode_map, &key);
  if (info != NULL) {
    __sync_fetch_and_add(&info->fd_count, 1);
    return kavo_total_of(&dmabuf_perprocess_size_map, pid);
  }
  struct kavo_process_inode_info fresh = {.fd_count = 1, .size = size};
  bpf_map_update_elem(&process_inode_map, &key, &fresh, BPF_NOEXIST);
  return kavo_add_total(&dmabuf_perprocess_size_map, pid, size);
}

static __always_inline __u64 kavo_file_inode(struct file *file) {
  return BPF_CORE_READ(file, f_inode, i_ino);
}

/* Writes a type-7 record; the name is the current task's, so it is only
 * filled in when the record is about the current process. */
static __always_inline void kavo_emit_update(__s32 pid, __u32 action, __u64 inode, __s64 size,
                                             __s64 total) {
  struct kavo_dmabuf_update_event *record =
      KAVO_RESERVE(KAVO_EVENT_DMABUF_UPDATE, struct kavo_dmabuf_update_event);
  if (record == NULL) return;
  record->pid = pid;
  record->action = action;
  record->inode = inode;
  record->size = size;
  record->process_total = total;
  if (pid == kavo_current_tgid()) bpf_get_current_comm(record->comm, sizeof(record->comm));
  kavo_submit(record);
}

/* ---- Sweeps over process_inode_map ----------------------------------------- */

struct kavo_sweep {
  __s32 pid;     /* match this process, when inode is 0 */
  __u64 inode;   /* or this buffer */
};

/* Drops one use entry that matches the sweep, with its mapping entry; a
 * buffer sweep also takes the buffer out of its user's total. */
static long kavo_sweep_entry(struct bpf_map *map, struct kavo_process_inode_key *key,
                             struct kavo_process_inode_info *info, struct kavo_sweep *sweep) {
  bool match = sweep->inode != 0 ? key->inode == sweep->inode : key->pid == sweep->pid;
  if (!match) return 0;
  struct kavo_process_inode_key copy = *key;
  if (sweep->inode != 0) kavo_add_total(&dmabuf_perprocess_size_map, copy.pid, -info->size);
  bpf_map_delete_elem(&process_mmap_infos, &copy);
  bpf_map_delete_elem(map, &copy);
  return 0;
}

/* ---- Process exit ---------------------------------------------------------- */

/* Exits are reported by the other set's ring; this one only forgets what
 * the ended process used, and says so when it used any dma-buf. */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx) {
  if (!kavo_exit_is_group_dead(ctx)) return 0;
  __s32 tgid = kavo_current_tgid();
  __s64 used = kavo_total_of(&dmabuf_perprocess_size_map, tgid);
  __s64 charged = kavo_total_of(&dmabuf_size_map, tgid);
  if (used == 0 && charged == 0) return 0;

  /* Only processes that used a buffer pay for the walk over the use map. */
  struct kavo_sweep sweep = {.pid = tgid, .inode = 0};
  bpf_for_each_map_elem(&process_inode_map, kavo_sweep_entry, &sweep, 0);
  bpf_map_delete_elem(&dmabuf_perprocess_size_map, &tgid);
  bpf_map_delete_elem(&dmabuf_size_map, &tgid);

  if (!kavo_producer_enabled(KAVO_RING_CORE_ENABLED_BIT)) return 0;
  kavo_emit_update(tgid, KAVO_DMABUF_PROCESS_EXIT, 0, used != 0 ? used : charged, 0);
  return 0;
}

/* ---- cgroup ---------------------------------------------------------------- */

/* A __data_loc field: the low 16 bits give the string's offset in the record. */
static __always_inline void kavo_read_data_loc(char *dst, __u32 size, void *ctx, __u32 loc) {
  bpf_probe_read_kernel_str(dst, size, (char *)ctx + (loc & 0xffff));
}

SEC("tracepoint/cgroup/cgroup_attach_task")
int cgroup_cgroup_attach_task(struct trace_event_raw_cgroup_migrate *ctx) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  struct kavo_cgroup_attach_event *record =
      KAVO_RESERVE(KAVO_EVENT_CGROUP_ATTACH, struct kavo_cgroup_attach_event);
  if (record == NULL) return 0;
  record->pid = ctx->pid;
  record->dst_level = ctx->dst_level;
  record->dst_id = ctx->dst_id;
  kavo_read_data_loc(record->comm, sizeof(record->comm), ctx, ctx->__data_loc_comm);
  kavo_read_data_loc(record->dst_path, sizeof(record->dst_path), ctx, ctx->__data_loc_dst_path);
  kavo_submit(record);
  return 0;
}

/* ---- dma-buf programs ------------------------------------------------------ */

/* A buffer was exported by the current process: it is charged with it. */
static __always_inline int kavo_dmabuf_exported(struct dma_buf *dmabuf, struct file *file) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __s32 tgid = kavo_current_tgid();
  __u64 inode = kavo_file_inode(file);
  __s64 size = (__s64)BPF_CORE_READ(dmabuf, size);
  if (inode == 0 || size <= 0) return 0;

  struct kavo_dmabuf_buffer buffer = {.pid = tgid, .size = size};
  bpf_map_update_elem(&dmabuf_allocate_map, &inode, &buffer, BPF_ANY);
  __s64 charged = kavo_add_total(&dmabuf_size_map, tgid, size);
  kavo_note_use(tgid, inode, size);

  struct kavo_dmabuf_size_event *record =
      KAVO_RESERVE(KAVO_EVENT_DMABUF_SIZE, struct kavo_dmabuf_size_event);
  if (record == NULL) return 0;
  record->pid = tgid;
  record->inode = inode;
  record->size = size;
  record->process_total = charged;
  bpf_get_current_comm(record->comm, sizeof(record->comm));
  kavo_submit(record);
  return 0;
}

/* A device is attached to the buffer on behalf of the current process. */
static __always_inline int kavo_dmabuf_attached(struct dma_buf *dmabuf) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __s32 tgid = kavo_current_tgid();
  __u64 inode = kavo_file_inode(BPF_CORE_READ(dmabuf, file));
  __s64 size = (__s64)BPF_CORE_READ(dmabuf, size);
  if (inode == 0) return 0;
  __s64 total = kavo_note_use(tgid, inode, size);
  kavo_emit_update(tgid, KAVO_DMABUF_ATTACH, inode, size, total);
  return 0;
}

/* The kernel maps the buffer; nothing is charged, the use is reported. */
static __always_inline int kavo_dmabuf_vmapped(struct dma_buf *dmabuf) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __s32 tgid = kavo_current_tgid();
  __u64 inode = kavo_file_inode(BPF_CORE_READ(dmabuf, file));
  __s64 size = (__s64)BPF_CORE_READ(dmabuf, size);
  if (inode == 0) return 0;
  kavo_emit_update(tgid, KAVO_DMABUF_VMAP, inode, size,
                   kavo_total_of(&dmabuf_perprocess_size_map, tgid));
  return 0;
}

/* The current process maps the buffer into its address space. */
static __always_inline int kavo_dmabuf_mmapped(struct file *file, struct vm_area_struct *vma) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __s32 tgid = kavo_current_tgid();
  __u64 inode = kavo_file_inode(file);
  struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
  __s64 size = (__s64)BPF_CORE_READ(dmabuf, size);
  if (inode == 0) return 0;

  struct kavo_process_inode_key key = {.pid = tgid, .inode = inode};
  struct kavo_process_mmap_info *mapping = bpf_map_lookup_elem(&process_mmap_infos, &key);
  if (mapping == NULL) {
    struct kavo_process_mmap_info fresh = {.map_count = 1, .last_start = BPF_CORE_READ(vma, vm_start)};
    bpf_map_update_elem(&process_mmap_infos, &key, &fresh, BPF_NOEXIST);
  } else {
    __sync_fetch_and_add(&mapping->map_count, 1);
    mapping->last_start = BPF_CORE_READ(vma, vm_start);
  }
  __s64 total = kavo_note_use(tgid, inode, size);
  kavo_emit_update(tgid, KAVO_DMABUF_MMAP, inode, size, total);
  return 0;
}

/* The buffer's last reference is gone: it leaves every map and every total. */
static __always_inline int kavo_dmabuf_released(struct inode *inode) {
  if (!kavo_producer_enabled(KAVO_RING_NORMAL_ENABLED_BIT)) return 0;
  __u64 ino = BPF_CORE_READ(inode, i_ino);
  struct kavo_dmabuf_buffer *buffer = bpf_map_lookup_elem(&dmabuf_allocate_map, &ino);
  if (buffer == NULL) return 0;
  __s32 owner = buffer->pid;
  __s64 size = buffer->size;
  bpf_map_delete_elem(&dmabuf_allocate_map, &ino);
  kavo_add_total(&dmabuf_size_map, owner, -size);

  struct kavo_sweep sweep = {.pid = 0, .inode = ino};
  bpf_for_each_map_elem(&process_inode_map, kavo_sweep_entry, &sweep, 0);
  kavo_emit_update(owner, KAVO_DMABUF_RELEASE, ino, size,
                   kavo_total_of(&dmabuf_perprocess_size_map, owner));
  return 0;
}

/* ---- The kprobes ------------------------------------------------------------ */

SEC("kprobe/dma_buf_stats_setup")
int BPF_KPROBE(dma_buf_stats_setup, struct dma_buf *dmabuf, struct file *file) {
  (void)ctx;
  return kavo_dmabuf_exported(dmabuf, file);
}

SEC("kprobe/dma_buf_dynamic_attach")
int BPF_KPROBE(dma_buf_dynamic_attach, struct dma_buf *dmabuf) {
  (void)ctx;
  return kavo_dmabuf_attached(dmabuf);
}

SEC("kprobe/dma_buf_vmap")
int BPF_KPROBE(dma_buf_vmap, struct dma_buf *dmabuf) {
  (void)ctx;
  return kavo_dmabuf_vmapped(dmabuf);
}

SEC("kprobe/dma_buf_mmap_internal")
int BPF_KPROBE(dma_buf_mmap_internal, struct file *file, struct vm_area_struct *vma) {
  (void)ctx;
  return kavo_dmabuf_mmapped(file, vma);
}

SEC("kprobe/dma_buf_file_release")
int BPF_KPROBE(dma_buf_file_release, struct inode *inode) {
  (void)ctx;
  return kavo_dmabuf_released(inode);
}

/* ---- Their trampoline twins --------------------------------------------------- */

SEC("fentry/dma_buf_stats_setup")
int BPF_PROG(dma_buf_stats_setup__fentry, struct dma_buf *dmabuf, struct file *file) {
  (void)ctx;
  return kavo_dmabuf_exported(dmabuf, file);
}

/*
 * Kernels built without CONFIG_DMABUF_SYSFS_STATS have no
 * dma_buf_stats_setup(): dma_buf_export() calls an inline stub that returns
 * 0. Where the function exists it is the last step of the export that can
 * fail; once it has passed, the export only links the file to the buffer and
 * returns it. So dma_buf_export() returning a buffer is the moment such a
 * kernel would have called dma_buf_stats_setup(dmabuf, dmabuf->file), on the
 * same exporting task, and the buffer's size and file are the same. Exports
 * that fail are left out; a kprobe would have counted one that failed in the
 * statistics setup itself, until the buffer's release took it out again.
 */
SEC("fexit/dma_buf_export")
int BPF_PROG(dma_buf_stats_setup__export, const struct dma_buf_export_info *info,
             struct dma_buf *dmabuf) {
  (void)ctx;
  (void)info;
  /* An error pointer: the last page of the address space. */
  if ((unsigned long)dmabuf >= (unsigned long)-4095) return 0;
  return kavo_dmabuf_exported(dmabuf, BPF_CORE_READ(dmabuf, file));
}

SEC("fentry/dma_buf_dynamic_attach")
int BPF_PROG(dma_buf_dynamic_attach__fentry, struct dma_buf *dmabuf) {
  (void)ctx;
  return kavo_dmabuf_attached(dmabuf);
}

SEC("fentry/dma_buf_vmap")
int BPF_PROG(dma_buf_vmap__fentry, struct dma_buf *dmabuf) {
  (void)ctx;
  return kavo_dmabuf_vmapped(dmabuf);
}

SEC("fentry/dma_buf_mmap_internal")
int BPF_PROG(dma_buf_mmap_internal__fentry, struct file *file, struct vm_area_struct *vma) {
  (void)ctx;
  return kavo_dmabuf_mmapped(file, vma);
}

SEC("fentry/dma_buf_file_release")
int BPF_PROG(dma_buf_file_release__fentry, struct inode *inode) {
  (void)ctx;
  return kavo_dmabuf_released(inode);
}
