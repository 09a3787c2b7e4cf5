// The entity tree of a serving daemon: registration, look-up by target path,
// item tables and their layout.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/app_internal.h"
#include "mgmt/mgi_app.h"
#include "mgmt/sorter.h"

namespace {

appEntity *find_word(appEntityList &list, uint32_t word) {
    for (appEntity *e = list.first; e; e = e->next)
        if (e->entity == word) return e;
    return nullptr;
}

void append(appEntityList &list, appEntity *entity) {
    if (list.last)
        list.last->next = entity;
    else
        list.first = entity;
    list.last = entity;
}

// Walks at most max words of path; the path also ends at its first 0 word.
appEntity *lookup(const uint32_t *path, size_t max) {
    if (!path || path[0] == 0) return nullptr;
    appEntityList *list = &entity_root;
    appEntity *found = nullptr;
    for (size_t i = 0; i < max && path[i] != 0; ++i) {
        found = list->first ? find_word(*list, path[i]) : nullptr;
        if (!found) {
            puts("request path does not exist");
            return nullptr;
        }
        list = &found->children;
    }
    return found;
}

// An all-zero row ends a table: the scan for a name never goes past it.
bool is_table_end(const appItem &row) {
    for (const char *n : row.names)
        if (n) return false;
    return row.type == 0 && row.offset == 0;
}

bool row_has_name(const appItem &row, const char *name) {
    for (const char *n : row.names) {
        if (!n) break;
        if (std::strcmp(n, name) == 0) return true;
    }
    return false;
}

} // namespace

namespace mgmt::app {

appEntity *entity_at_target(const uint32_t *target) { return lookup(target, MGI_TARGET_WORDS); }

} // namespace mgmt::app

extern "C" {

MGMT_API appEntityList entity_root = {nullptr, nullptr};

MGMT_API appEntity *app_entity_init(uint32_t entity, uint32_t kind, mgi_app_handler decodeIndex,
                                    mgi_app_handler errHandle, mgi_app_handler decodeData,
                                    mgi_app_handler encodeData, appItem *items) {
    auto *e = static_cast<appEntity *>(std::malloc(sizeof(appEntity)));
    if (!e) {
        puts("malloc fail");
        return nullptr;
    }
    e->entity = entity;
    e->kind = kind;
    e->decodeIndex = decodeIndex;
    e->errHandle = errHandle;
    e->decodeData = decodeData;
    e->encodeData = encodeData;
    e->items = items;
    e->children = {nullptr, nullptr};
    e->next = nullptr;
    return e;
}

MGMT_API int app_entity_add(const uint32_t *path, appEntity *entity) {
    appEntityList *list = &entity_root;
    if (path) {
        for (size_t i = 0; path[i] != 0; ++i) {
            appEntity *node = find_word(*list, path[i]);
            if (!node) {
                node = app_entity_init(path[i], 0, nullptr, nullptr, nullptr, nullptr, nullptr);
                if (!node) return -1;
                append(*list, node);
            }
            list = &node->children;
        }
    }
    if (!entity) return -1;
    append(*list, entity);
    return 0;
}

MGMT_API appEntity *get_app_mgi_entity(const uint32_t *path) { return lookup(path, SIZE_MAX); }

MGMT_API void print_app_entity_tree(int *depth, appEntity *entity) {
    for (; entity; entity = entity->next) {
        for (int i = 0; i < *depth; ++i) putchar('\t');
        printf("entity: %d, decodeIndex:%p, errHandle:%p, decodeData:%p, encodeData:%p  \n",
               static_cast<int>(entity->entity), reinterpret_cast<void *>(entity->decodeIndex),
               reinterpret_cast<void *>(entity->errHandle), reinterpret_cast<void *>(entity->decodeData),
               reinterpret_cast<void *>(entity->encodeData));
        ++*depth;
        print_app_entity_tree(depth, entity->children.first);
        --*depth;
    }
}

MGMT_API void show_app_entity(void) {
    if (!entity_root.first) {
        puts("nothing to be shown! ");
        return;
    }
    int depth = 0;
    print_app_entity_tree(&depth, entity_root.first);
}

MGMT_API appItem *get_item_by_name(appEntity *entity, const char *name) {
    if (!entity || !entity->items || !name) return nullptr;
    for (appItem *row = entity->items; !is_table_end(*row); ++row)
        if (row_has_name(*row, name)) return row;
    return nullptr;
}

MGMT_API int set_itemSyntax(appEntity *entity, const char *name, int32_t offset, uint32_t type) {
    if (!entity || !entity->items) return MGI_ERR_NO_ITEMS;
    appItem *row = get_item_by_name(entity, name);
    if (!row) return MGI_ERR_GENERIC;
    row->offset = offset;
    if (type != APP_ITEM_KEEP_TYPE) row->type = type;
    return 0;
}

MGMT_API int set_items_default_offset(appItem *items) {
    if (!items) return -1;
    appItem *row = items;
    do {
        row->offset = getOffset(row->type, row->offset);
        ++row;
    } while (row->names[0]);
    return 0;
}

MGMT_API int set_items_ud_offset(const char *name, int32_t offset, const uint32_t *path) {
    appEntity *entity = get_app_mgi_entity(path);
    if (!entity) return MGI_ERR_NO_ENTITY;
    return set_itemSyntax(entity, name, offset, APP_ITEM_KEEP_TYPE);
}

} // extern "C"
