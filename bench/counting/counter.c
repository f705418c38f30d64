/* SPDX-License-Identifier: MIT */
/*
 * Plug-in for QEMU's user-mode emulation: counts the instructions and system calls between two marks of the emulated
 * program and writes both numbers and a newline to standard output. Counted are all threads of the process.
 *
 * QEMU's header for plug-ins is not packaged; the declarations below are version 1 of that interface.
 */
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "marks.h"

typedef uint64_t plugin_id;
struct qemu_plugin_tb;
struct qemu_info_t;
enum { INLINE_ADD_U64 };

typedef void (*block_translated)(plugin_id, struct qemu_plugin_tb *);
typedef void (*system_called)(plugin_id, unsigned int cpu, int64_t number, uint64_t a1, uint64_t a2, uint64_t a3,
                              uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);
void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id, block_translated callback);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *block, int operation, void *counter, uint64_t add);
void qemu_plugin_register_vcpu_syscall_cb(plugin_id id, system_called callback);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 1;
EXPORTED int qemu_plugin_install(plugin_id id, const struct qemu_info_t *info, int argc, char **argv);

/* What ran since the start, and how much of it lies outside the counted parts of the present case. */
static uint64_t instructions, instructions_outside;
static uint64_t calls, calls_outside;

static void on_block(plugin_id id, struct qemu_plugin_tb *block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, INLINE_ADD_U64, &instructions, qemu_plugin_tb_n_insns(block));
}

static void on_system_call(plugin_id id, unsigned int cpu, int64_t number, uint64_t a1, uint64_t a2, uint64_t a3,
                           uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
    (void)id, (void)cpu, (void)number, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (a1 != VXCOUNT_MAGIC) {
        ++calls;
        return;
    }
    switch (a2) {
        case VXCOUNT_BEGIN:
            instructions_outside = instructions;
            calls_outside = calls;
            break;
        case VXCOUNT_PAUSE:
            instructions_outside -= instructions;
            calls_outside -= calls;
            break;
        case VXCOUNT_RESUME:
            instructions_outside += instructions;
            calls_outside += calls;
            break;
        default:
            dprintf(STDOUT_FILENO, "%llu %llu\n", (unsigned long long)(instructions - instructions_outside),
                    (unsigned long long)(calls - calls_outside));
    }
}

int qemu_plugin_install(plugin_id id, const struct qemu_info_t *info, int argc, char **argv) {
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_block);
    qemu_plugin_register_vcpu_syscall_cb(id, on_system_call);
    return 0;
}
