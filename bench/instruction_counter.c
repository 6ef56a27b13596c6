// A plug-in for QEMU's user-mode emulator: counts executed guest instructions. Whenever the guest makes the system call
// 4242 a second time, what was executed since the first is written to standard output, behind a comma.
//
// Debian's emulator comes without the header of its plug-in interface, version 1; what is used of it is declared here.
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb, enum qemu_plugin_op op,
                                              void* counter, uint64_t addend);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          void (*called)(qemu_plugin_id_t, unsigned vcpu, int64_t number,
                                                         uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                                         uint64_t, uint64_t, uint64_t));

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

static uint64_t executed;
static uint64_t begin;
static int is_open;

static void Translated(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &executed,
                                           qemu_plugin_tb_n_insns(tb));
}

static void Called(qemu_plugin_id_t id, unsigned vcpu, int64_t number, uint64_t a, uint64_t b, uint64_t c,
                   uint64_t d, uint64_t e, uint64_t f, uint64_t g, uint64_t h) {
  (void)id, (void)vcpu, (void)a, (void)b, (void)c, (void)d, (void)e, (void)f, (void)g, (void)h;
  if (number != 4242) return;
  if (is_open) {
    dprintf(1, ",%" PRIu64, executed - begin);
  } else {
    begin = executed;
  }
  is_open = !is_open;
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const void* info,
                                                               int argc, char** argv) {
  (void)info, (void)argc, (void)argv;
  qemu_plugin_register_vcpu_tb_trans_cb(id, Translated);
  qemu_plugin_register_vcpu_syscall_cb(id, Called);
  return 0;
}
