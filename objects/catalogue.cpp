/* The catalogue of the management tree: lookup by name and by number. */
#include "objects/objects_internal.h"

MGMT_API const libmgmt_object *libmgmt_object_find(const char *name) {
    if (!name) return nullptr;
    uint32_t lo = 0, hi = mgmt_object_total;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        const libmgmt_object *obj = mgmt_object_table[mgmt_object_by_name[mid]];
        const int c = strcmp(name, obj->name);
        if (c == 0) return obj;
        if (c < 0)
            hi = mid;
        else
            lo = mid + 1;
    }
    return nullptr;
}

MGMT_API uint32_t libmgmt_object_count(void) { return mgmt_object_total; }

MGMT_API const libmgmt_object *libmgmt_object_at(uint32_t i) {
    return i < mgmt_object_total ? mgmt_object_table[i] : nullptr;
}
