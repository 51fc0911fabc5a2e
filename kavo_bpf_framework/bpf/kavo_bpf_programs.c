/* The BPF objects, pulled into .rodata as they were built (the paths come
 * from the build, see CMakeLists.txt). */
#include "bpf/kavo_bpf_programs.h"

#define KAVO_EMBED(symbol, path)                        \
  __asm__(".section .rodata\n"                          \
          ".balign 8\n"                                 \
          ".global " #symbol "\n" #symbol ":\n"         \
          ".incbin \"" path "\"\n"                      \
          ".global " #symbol "_end\n" #symbol "_end:\n" \
          ".previous\n")

KAVO_EMBED(kavo_defineset_object, KAVO_DEFINESET_OBJECT);
KAVO_EMBED(kavo_gpl_defineset_object, KAVO_GPL_DEFINESET_OBJECT);

extern const unsigned char kavo_defineset_object[];
extern const unsigned char kavo_defineset_object_end[];
extern const unsigned char kavo_gpl_defineset_object[];
extern const unsigned char kavo_gpl_defineset_object_end[];

struct kavo_bpf_object_image kavo_bpf_object_image(size_t index) {
  struct kavo_bpf_object_image image;
  if (index == 0) {
    image.set_name = "KavoBpfDefineset";
    image.data = kavo_defineset_object;
    image.size = (size_t)(kavo_defineset_object_end - kavo_defineset_object);
  } else {
    image.set_name = "KavoBpfGplDefineset";
    image.data = kavo_gpl_defineset_object;
    image.size = (size_t)(kavo_gpl_defineset_object_end - kavo_gpl_defineset_object);
  }
  return image;
}
