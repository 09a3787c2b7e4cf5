/*
 * Packers and stubs of the objects of the management tree.
 *
 * For every object <o>: construct_<o>_entity, and for keyed objects
 * construct_<o>_index and construct_<o>_new_index; final_set_<o> and
 * final_get_<o>, or final_exec_<o>. Their prototypes are generated from the
 * catalogue into mgmt/objects_gen.h; the catalogue itself is in
 * mgmt/catalogue.h.
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
