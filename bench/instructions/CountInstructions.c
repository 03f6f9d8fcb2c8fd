/* A plugin of the user-mode emulators that counts the instructions of a program, in all of its threads, and writes
 * their number into the file that it is given as out=FILE. System calls count nothing but their instruction.
 *
 * The emulators' package has no header; these are the parts of the plugin interface, version 1, that are used. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
struct qemu_info_t;
enum qemu_plugin_cb_flags { QEMU_PLUGIN_CB_NO_REGS };

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*call)(qemu_plugin_id_t, struct qemu_plugin_tb *));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *block, void (*call)(unsigned int, void *),
                                          enum qemu_plugin_cb_flags flags, void *data);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, void *), void *data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

enum { kMostThreads = 1024 };

/* Of each thread, in a line of cache of its own. */
static struct {
    uint64_t count;
    char rest[56];
} threads[kMostThreads];
static char out[4096];

static void CountBlock(unsigned int thread, void *instructions) {
    threads[thread % kMostThreads].count += (uintptr_t)instructions;
}

static void OnBlock(qemu_plugin_id_t id, struct qemu_plugin_tb *block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, CountBlock, QEMU_PLUGIN_CB_NO_REGS,
                                         (void *)(uintptr_t)qemu_plugin_tb_n_insns(block));
}

static void OnExit(qemu_plugin_id_t id, void *data) {
    uint64_t count = 0;
    FILE *const file = fopen(out, "w");
    (void)id;
    (void)data;
    if (file == NULL) {
        perror(out);
        return;
    }
    for (unsigned int thread = 0; thread < kMostThreads; ++thread) {
        count += threads[thread].count;
    }
    fprintf(file, "%llu\n", (unsigned long long)count);
    fclose(file);
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info_t *info,
                                                               int argc, char **argv) {
    (void)info;
    if (argc != 1 || strncmp(argv[0], "out=", 4) != 0 || strlen(argv[0]) >= sizeof out) {
        fprintf(stderr, "count_instructions: out=FILE is missing\n");
        return 1;
    }
    strcpy(out, argv[0] + 4);
    qemu_plugin_register_vcpu_tb_trans_cb(id, OnBlock);
    qemu_plugin_register_atexit_cb(id, OnExit, NULL);
    return 0;
}
