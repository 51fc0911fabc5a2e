/*
 * What every program of an object set shares: the set's ring buffer, its
 * status map, its per-CPU record counters, the producer gate and the record
 * reservation that notes a full ring. Each object set includes this header
 * once, so each set gets its own `ringbuf_map`, `ringbuf_status` and
 * `ring_stats`.
 *
 * Status map (ARRAY, u32 key -> u64 value):
 *
 *   key 0  control word   bit 0 ring full (set here, cleared by the service)
 *                         bit 1 core producers on   (fork and exit programs)
 *                         bit 2 normal producers on (every other program)
 *   key 1  bytes of data not yet consumed   \
 *   key 2  ring size in bytes                |  written here when a record
 *   key 3  consumer position                 |  could not be reserved
 *   key 4  producer position                /
 *
 * Programs run on any CPU at once: the full bit is set with an atomic OR so it
 * never loses a producer bit the service writes at the same time (the service
 * clears bit 0 with a plain read-modify-write and may in turn lose a full bit
 * set in that instant; the next failed reserve sets it again).
 *
 * Lost-record counter (`ringbuf_lost`, ARRAY of one u64, BPF_F_MMAPABLE): the
 * number of records this set could not reserve, ever. The service maps it
 * read-only and looks at it with one plain load after each poll, which is how
 * it learns of a loss without a system call on its hot path. Only a failed
 * reservation touches it, so the atomic add costs nothing while the ring keeps
 * up.
 *
 * Waking the consumer (`ringbuf_consumer`, ARRAY of one u64, BPF_F_MMAPABLE):
 * the ring wakes its consumer for a record submitted while the consumer has
 * read everything before it, and a wake-up costs the producing task an
 * interrupt it raises on its own CPU (irq_work) and the consumer's CPU
 * another. A busy consumer catches up record after record, so most records
 * would wake a consumer that is running anyway. The consumer therefore writes
 * into this word the boot time until which it is awake and will look at the
 * ring again before it waits, and 0 before it waits; a record stamped before
 * that time is submitted without a wake-up. Neither side can miss the other:
 *
 *   producer: reserve (moves producer_pos); fetching atomic add (ring_stats,
 *             a full barrier); read the word; submit
 *   consumer: write 0 (full barrier); read producer_pos; wait only if it
 *             equals its own position, else consume
 *
 * Either the producer sees 0 and wakes it as before, or the consumer sees the
 * record and does not wait. A consumer that never writes the word leaves it
 * 0 (as loaded): every record may wake it, as it always could; one that
 * stopped while awake is woken again once its time has passed.
 */
#ifndef KAVO_BPF_RING_BPF_H
#define KAVO_BPF_RING_BPF_H

#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "bpf/kavo_bpf_records.h"

/* A set may choose its own before including this header; the loader may
 * replace it (--ring-size). A power of two of at least a page. The consumer
 * maps a ring's data twice, so each byte here is two bytes of its memory. */
#ifndef KAVO_DEFAULT_RING_SIZE
#define KAVO_DEFAULT_RING_SIZE (1024 * 1024)
#endif

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, KAVO_DEFAULT_RING_SIZE);
} ringbuf_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, KAVO_RING_STATUS_KEYS);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_status SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(map_flags, BPF_F_MMAPABLE);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_lost SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(map_flags, BPF_F_MMAPABLE);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} ringbuf_consumer SEC(".maps");

/* Records written and lost per type, per CPU (see KAVO_RING_STATS_KEYS):
 * an add to this CPU's own counter, so counting shares no cache line. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, KAVO_RING_STATS_KEYS);
  __type(key, __u32);
  __type(value, __u64);
} ring_stats SEC(".maps");

static __always_inline void kavo_count_record(__u32 key) {
  __u64 *count = bpf_map_lookup_elem(&ring_stats, &key);
  if (count != NULL) *count += 1;
}

/* The same as a fetching atomic add: a full barrier on every architecture
 * (lock xadd, ldaddal), uncontended since the counter is this CPU's. It
 * orders the reservation before the look at the consumer (kavo_submit). */
static __always_inline void kavo_count_record_ordered(__u32 key) {
  __u64 *count = bpf_map_lookup_elem(&ring_stats, &key);
  if (count == NULL) return;
  __u64 before = __sync_fetch_and_add(count, 1);
  /* Keeps the fetching form: without a use of the old value the compiler
   * emits a plain atomic add, which orders nothing on arm64. */
  asm volatile("" : : "r"(before));
}

static __always_inline __u64 *kavo_control_word(void) {
  __u32 key = KAVO_RING_STATUS_CONTROL;
  return bpf_map_lookup_elem(&ringbuf_status, &key);
}

/* Whether the producers of one kind (a KAVO_RING_*_ENABLED_BIT) may write. */
static __always_inline bool kavo_producer_enabled(__u64 bit) {
  __u64 *word = kavo_control_word();
  return word != NULL && (*word & bit) != 0;
}

static __always_inline void kavo_store_status(__u32 key, __u64 value) {
  bpf_map_update_elem(&ringbuf_status, &key, &value, BPF_ANY);
}

/* A record was lost: count it for the service, raise the full bit and leave
 * the ring's state for the service's next status check. */
static __always_inline void kavo_mark_ring_full(void) {
  __u32 zero = 0;
  __u64 *lost = bpf_map_lookup_elem(&ringbuf_lost, &zero);
  if (lost != NULL) __sync_fetch_and_add(lost, 1);
  __u64 *word = kavo_control_word();
  if (word != NULL) __sync_fetch_and_or(word, KAVO_RING_FULL_BIT);
  kavo_store_status(KAVO_RING_STATUS_AVAIL_DATA, bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA));
  kavo_store_status(KAVO_RING_STATUS_RING_SIZE, bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE));
  kavo_store_status(KAVO_RING_STATUS_CONS_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_CONS_POS));
  kavo_store_status(KAVO_RING_STATUS_PROD_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_PROD_POS));
}

/* Reserves a zeroed record of |size| bytes with its header filled in, or
 * notes the full ring and returns NULL. Ring memory is reused, so zeroing
 * keeps stale bytes of earlier records out of padding and short strings. */
static __always_inline void *kavo_reserve(__u32 type, __u64 size) {
  struct kavo_event_header *header = bpf_ringbuf_reserve(&ringbuf_map, size, 0);
  if (header == NULL) {
    kavo_count_record(KAVO_RING_STATS_LOST_BASE + (type & 7));
    kavo_mark_ring_full();
    return NULL;
  }
  __builtin_memset(header, 0, size);
  header->type = type;
  header->time_ns = bpf_ktime_get_boot_ns();
  /* Every reservation is submitted: counting it here counts the record. */
  kavo_count_record_ordered(type & 7);
  return header;
}

/* Submits a record from kavo_reserve(), waking the consumer only when it may
 * be waiting (see "Waking the consumer" above). */
static __always_inline void kavo_submit(void *record) {
  struct kavo_event_header *header = record;
  __u32 zero = KAVO_RING_CONSUMER_KEY;
  __u64 *awake_until = bpf_map_lookup_elem(&ringbuf_consumer, &zero);
  __u64 flags = 0;
  if (awake_until != NULL && header->time_ns < *(volatile __u64 *)awake_until) flags = BPF_RB_NO_WAKEUP;
  bpf_ringbuf_submit(record, flags);
}

#define KAVO_RESERVE(type, record) ((record *)kavo_reserve((type), sizeof(record)))

static __always_inline __s32 kavo_current_tgid(void) {
  return (__s32)(bpf_get_current_pid_tgid() >> 32);
}

/* ---- Process exit: last thread of the group or one of its threads? ----- */

/* The exit tracepoint carries group_dead on newer kernels; older ones only
 * let the program look at the thread group's count of live threads, which
 * do_exit() has already decremented when the tracepoint fires. */
struct trace_event_raw_sched_process_exit___kavo {
  bool group_dead;
} __attribute__((preserve_access_index));

static __always_inline bool kavo_exit_is_group_dead(void *ctx) {
  struct trace_event_raw_sched_process_exit___kavo *exit = ctx;
  if (bpf_core_field_exists(exit->group_dead)) return exit->group_dead;
  struct task_struct *task = (struct task_struct *)bpf_get_current_task();
  return BPF_CORE_READ(task, signal, live.counter) == 0;
}

#endif /* KAVO_BPF_RING_BPF_H */
