/*
 * The catalogue of the management tree, for tools: every object by name or by
 * number, with its path, owner, operations, parent chain and record layout.
 *
 * The table is built from objects/catalogue.tsv together with the packers and
 * stubs; it is constant and may be read from any thread.
 */
#ifndef MGMT_CATALOGUE_H
#define MGMT_CATALOGUE_H

#include <stddef.h>
#include <stdint.h>

#include "mgmt/export.h"
#include "mgmt/mgi.h"

MGMT_BEGIN_DECLS

/* Kind of a record field. */
enum libmgmt_field_kind {
    LIBMGMT_FIELD_U8 = 1, /* u8: one byte */
    LIBMGMT_FIELD_I8,     /* i8: one byte, signed */
    LIBMGMT_FIELD_U16,    /* u16, host order */
    LIBMGMT_FIELD_I16,    /* i16, host order */
    LIBMGMT_FIELD_U32,    /* u32, host order */
    LIBMGMT_FIELD_U64,    /* u64, host order */
    LIBMGMT_FIELD_TEXT,   /* sN: text of N bytes, always terminated; the argument points at a char pointer */
    LIBMGMT_FIELD_BYTES,  /* bN: N bytes taken from the argument itself */
    LIBMGMT_FIELD_REF     /* pN: N bytes behind a pointer; the argument points at that pointer */
};

/* Field flags. */
#define LIBMGMT_FIELD_PLACED 0x01u /* the catalogue states the field's offset */

typedef struct libmgmt_field {
    uint8_t kind;   /* enum libmgmt_field_kind */
    uint8_t flags;  /* LIBMGMT_FIELD_* */
    uint16_t align; /* alignment the field asks for */
    uint32_t offset;
    uint32_t width;
} libmgmt_field;

/* Operations of an object: set and get, or exec. */
#define LIBMGMT_OP_SET 0x01u
#define LIBMGMT_OP_GET 0x02u
#define LIBMGMT_OP_EXEC 0x04u

/* Object flags. */
#define LIBMGMT_OBJ_SIZED 0x01u /* the catalogue states the record's length */

/*
 * A record packer taking its field arguments from an array, one pointer per
 * field in field order (null: not given). Same result as the object's
 * construct_<object>_entity or construct_<object>_index.
 */
typedef uint32_t (*libmgmt_packer)(void *record, uint64_t *mask_out, uint32_t *mask3_out, void *const *args);

typedef struct libmgmt_object {
    const char *name;
    const struct libmgmt_object *parent; /* nearest object whose index record goes ahead; null at the top */
    const libmgmt_field *fields;         /* entity fields in order; the first index_count form the index */
    uint32_t path[MGI_TARGET_WORDS];     /* target words from the root, zero-terminated when fewer than ten */
    uint16_t depth;                      /* number of path words */
    uint16_t owner;                      /* owning application */
    uint8_t ops;                         /* LIBMGMT_OP_* */
    uint8_t flags;                       /* LIBMGMT_OBJ_* */
    uint16_t field_count;                /* fields of the entity, at most 96 */
    uint16_t index_count;                /* key fields; 0 when the object has no construct_<object>_index */
    uint16_t slot_count;                 /* rqt_item slots of a request: parents' key fields, then own fields */
    uint32_t entity_len;                 /* length of the entity record, the stride of set answers */
    uint32_t index_len;                  /* length of the index record; 0 without an index */
    libmgmt_packer pack_entity;          /* construct_<object>_entity over an argument array */
    libmgmt_packer pack_index;           /* construct_<object>_index over an argument array, or null */
    int (*set)(mgiInfo *info, mgi_rsp_callback callback);                   /* final_set_<object> or null */
    int (*get)(mgiInfo *info, mgi_direct_callback callback, void *record);  /* final_get_<object> or null */
    int (*exec)(mgiInfo *info, mgi_direct_callback callback, void *record); /* final_exec_<object> or null */
} libmgmt_object;

/* The object of that exact name, or null (also for a null name). The record is the library's, never freed. */
MGMT_API const libmgmt_object *libmgmt_object_find(const char *name);
/* Number of objects in the catalogue. */
MGMT_API uint32_t libmgmt_object_count(void);
/* Object number i in catalogue order (0 to count - 1), or null when i is out of range. */
MGMT_API const libmgmt_object *libmgmt_object_at(uint32_t i);
/* The object at exactly these target words (host order, depth words), or null. */
MGMT_API const libmgmt_object *libmgmt_object_by_path(const uint32_t *words, uint32_t depth);
/*
 * A field in the catalogue's notation: kind letter and width ("u16", "s32",
 * "b6"), with "@offset" when the catalogue places it. Writes at most size
 * bytes, always terminated; returns the length of the whole text.
 */
MGMT_API int libmgmt_field_notation(const libmgmt_field *field, char *buf, size_t size);

MGMT_END_DECLS

#endif
