/*
 * rdnd_lib - the redundancy library, which says when this node may work.
 *
 * A chassis may hold two management cards; a program does nothing until the
 * library says that its node is the one that works.
 *
 * The record is ten pointer-sized words. It describes the application and the
 * databases that it will open, so that the library can have them ready.
 */
#ifndef PLATFORM_RDND_LIB_H
#define PLATFORM_RDND_LIB_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "platform/kt_global.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*rdnd_ready_callback)(void);

typedef struct rdnd_lib_mom_record {
    void *context_handle;       /* the second word of the global context */
    const char *app_name;       /* NUL-terminated */
    kt_global *global;          /* the global context itself */
    rdnd_ready_callback ready;  /* called when the node may work */
    rdnd_ready_callback ready2; /* the library's second slot; may be the same */
    uintptr_t zero[3];          /* must be zero */
    const uint32_t *mom_ids;    /* database ids, valid for the life of the process */
    uintptr_t mom_count;        /* how many */
} rdnd_lib_mom_record;

static_assert(sizeof(rdnd_lib_mom_record) == 10 * sizeof(void *), "ten words");
static_assert(offsetof(rdnd_lib_mom_record, ready) == 3 * sizeof(void *), "word 4");
static_assert(offsetof(rdnd_lib_mom_record, mom_ids) == 8 * sizeof(void *), "word 9");

/*
 * Registers the application. The record may live on the stack; what it points
 * at must outlive the process's use of the library.
 *
 * Returns 0 and calls one of the ready callbacks once, from the loop, when the
 * node may work; a negative errno value when the record is refused.
 */
int rdnd_lib_mom_reg(const rdnd_lib_mom_record *record);

#ifdef __cplusplus
}
#endif

#endif
