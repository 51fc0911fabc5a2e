/*
 * The compiled BPF object sets, embedded in the binary that links
 * kavobpf_programs, so the loader needs no file beside it.
 *
 * Read-only data; safe from any thread.
 */
#ifndef KAVO_BPF_PROGRAMS_H
#define KAVO_BPF_PROGRAMS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct kavo_bpf_object_image {
  const char *set_name; /* "KavoBpfDefineset", "KavoBpfGplDefineset" */
  const unsigned char *data;
  size_t size;
};

#define KAVO_BPF_OBJECT_SETS 2

/* Object set |index| (0 .. KAVO_BPF_OBJECT_SETS - 1), in load order. */
struct kavo_bpf_object_image kavo_bpf_object_image(size_t index);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_BPF_PROGRAMS_H */
