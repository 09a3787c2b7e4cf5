/* The catalogue of the management tree: lookup by name and by number. */
#include <cstdio>

#include "objects/objects_internal.h"

namespace {

// Binary search of the catalogue in the order of `order` (numbers into the table); compare gives
// the sign of the sought key against an object.
template <class Compare> const libmgmt_object *search(const uint16_t *order, Compare compare) {
    uint32_t lo = 0, hi = mgmt_object_total;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        const libmgmt_object *obj = mgmt_object_table[order[mid]];
        const int c = compare(obj);
        if (c == 0) return obj;
        if (c < 0)
            hi = mid;
        else
            lo = mid + 1;
    }
    return nullptr;
}

} // namespace

MGMT_API const libmgmt_object *libmgmt_object_find(const char *name) {
    if (!name) return nullptr;
    return search(mgmt_object_by_name, [&](const libmgmt_object *obj) { return strcmp(name, obj->name); });
}

MGMT_API uint32_t libmgmt_object_count(void) { return mgmt_object_total; }

MGMT_API const libmgmt_object *libmgmt_object_at(uint32_t i) {
    return i < mgmt_object_total ? mgmt_object_table[i] : nullptr;
}

MGMT_API const libmgmt_object *libmgmt_object_by_path(const uint32_t *words, uint32_t depth) {
    if (!words || depth == 0 || depth > MGI_TARGET_WORDS) return nullptr;
    // Word by word; a path comes before the longer paths it leads.
    return search(mgmt_object_by_path, [&](const libmgmt_object *obj) {
        for (uint32_t k = 0; k < depth && k < obj->depth; ++k)
            if (words[k] != obj->path[k]) return words[k] < obj->path[k] ? -1 : 1;
        return depth == obj->depth ? 0 : depth < obj->depth ? -1 : 1;
    });
}

MGMT_API int libmgmt_field_notation(const libmgmt_field *field, char *buf, size_t size) {
    if (!field) return -1;
    static const char *const kinds[] = {"?", "u", "i", "u", "i", "u", "u", "s", "b", "p"};
    const uint8_t k = field->kind < sizeof kinds / sizeof *kinds ? field->kind : 0;
    // Integers are named by their bits, the others by their bytes.
    const bool integer = k >= LIBMGMT_FIELD_U8 && k <= LIBMGMT_FIELD_U64;
    const unsigned width = integer ? field->width * 8 : field->width;
    if (field->flags & LIBMGMT_FIELD_PLACED)
        return snprintf(buf, size, "%s%u@%u", kinds[k], width, field->offset);
    return snprintf(buf, size, "%s%u", kinds[k], width);
}
