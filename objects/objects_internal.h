/*
 * Inside the generated layer: what the generated packers and stubs share with
 * the hand-written stub routine and catalogue. Not installed.
 */
#ifndef MGMT_OBJECTS_INTERNAL_H
#define MGMT_OBJECTS_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mgmt/catalogue.h"
#include "mgmt/mgi.h"
#include "mgmt/objects.h"
#include "mgmt/platform/platform.h"

/* A text field: the argument points at a char pointer; a null text leaves the field alone. */
static inline void mgmt_put_text(unsigned char *at, const void *arg, size_t size) {
    const char *text = *static_cast<const char *const *>(arg);
    if (text) strlcpy(reinterpret_cast<char *>(at), text, size);
}

/* Bytes behind a pointer: the argument points at that pointer; a null pointer leaves the field alone. */
static inline void mgmt_put_ref(unsigned char *at, const void *arg, size_t size) {
    const void *from = *static_cast<const void *const *>(arg);
    if (from) memcpy(at, from, size);
}

/* The one routine behind every stub of each kind; the object is the stub's constant descriptor. */
int mgmt_stub_set(const libmgmt_object *obj, mgiInfo *info, mgi_rsp_callback callback);
int mgmt_stub_get(const libmgmt_object *obj, mgiInfo *info, mgi_direct_callback callback, void *record);
int mgmt_stub_exec(const libmgmt_object *obj, mgiInfo *info, mgi_direct_callback callback, void *record);

/* The catalogue: objects in catalogue order, and their numbers in name order and in path order. */
extern const libmgmt_object *const mgmt_object_table[];
extern const uint16_t mgmt_object_by_name[];
extern const uint16_t mgmt_object_by_path[];
extern const uint32_t mgmt_object_total;

#endif
