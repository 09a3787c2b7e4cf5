/*
 * Packers and stubs of the objects of the management tree.
 *
 * For every object <o>: construct_<o>_entity, and for keyed objects
 * construct_<o>_index and construct_<o>_new_index; final_set_<o> and
 * final_get_<o>, or final_exec_<o>. Their prototypes are generated from the
 * catalogue into mgmt/objects_gen.h; the catalogue itself is in
 * mgmt/catalogue.h.
 *
 * Packers: construct_<o>_*(record, mask_out, mask3_out, one pointer per
 * field) pack the given fields into record in host order and return the
 * record's full length, a constant of the object; they cannot fail, keep no
 * state and never clear the record: a null field pointer leaves its bytes as
 * they are. mask_out (fields 0 to 63) and mask3_out (64 to 95) may be null.
 * _new_index is _index under a second name. Kept on purpose: a text or
 * pointer field given with a null inner pointer is present in the mask and
 * leaves its bytes alone.
 *
 * Stubs: final_set_<o>, final_get_<o> and final_exec_<o> take an initialised
 * mgiInfo (its rqt_type, the rqt_item slots or a ready mgidata) and return the
 * result of the exchange (mgi.h), or -1 when the context has no pair or the
 * record does not fit the message. They write mgidata and mgidata_len into the
 * context, so a context used again without init sends the same record. A set
 * goes to the manager; a get to the owner (type 30: the manager); an exec to
 * the owner. The pair is the context's: one thread at a time. Kept on purpose:
 * a set sends the mask's high half in rqt_mask5 too, and nothing in rqt_mask4.
 */
#ifndef MGMT_OBJECTS_H
#define MGMT_OBJECTS_H

#include <stdint.h>

#include "mgmt/export.h"
#include "mgmt/mgi.h"

MGMT_BEGIN_DECLS

/*
 * Caller record of a get with match data (message type 31). The get stub
 * points data at the packed record in the send buffer and fills each block of
 * three words: the first with words 1 to 3 of rqt_xmask, the second with words
 * 4 to 6, each ORed with the request mask's low half, high half and third
 * word. A null block pointer is left alone.
 */
typedef struct mgi_match_get_record {
    void *data;
    uint32_t *mask_words;  /* three words */
    uint32_t *xmask_words; /* three words */
} mgi_match_get_record;

MGMT_END_DECLS

#include "mgmt/catalogue.h"
#include "mgmt/objects_gen.h"

#endif
