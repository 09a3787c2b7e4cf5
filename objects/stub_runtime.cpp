/*
 * The routine behind every object stub. A stub hands over its object's
 * constant record from the catalogue: path, owner, entity length, parent
 * chain and packers. The record goes into the send buffer behind the header
 * (set) or behind any udcdata segment (get, exec): the parents' index records
 * first, from the root down, then the object's own record, each directly
 * behind the one before.
 */
#include "mgi/wire.h"
#include "objects/objects_internal.h"

using mgmt::put_be32;
using mgmt::put_field;
namespace hdr = mgmt::hdr;

namespace {

/* A path has at most ten words, so a chain has at most nine parents. */
constexpr int kMaxChain = MGI_TARGET_WORDS;

/* The object's parents with an index record, root first; their number. */
int parents_of(const libmgmt_object *obj, const libmgmt_object **up) {
    int n = 0;
    for (const libmgmt_object *p = obj->parent; p && n < kMaxChain; p = p->parent)
        up[n++] = p;
    for (int i = 0; i < n / 2; ++i) {
        const libmgmt_object *t = up[i];
        up[i] = up[n - 1 - i];
        up[n - 1 - i] = t;
    }
    return n;
}

/*
 * Packs the parents' index records and then the object's entity (whole) or
 * index record at place, from the request's argument slots. The parents'
 * records give no mask. Returns the total length, or -1 when the records
 * would run past the end of the send buffer (room bytes from place).
 */
int32_t pack_chain(const libmgmt_object *obj, unsigned char *place, size_t room, void *const *slots, uint64_t *mask,
                   uint32_t *mask3, bool whole) {
    const libmgmt_object *up[kMaxChain];
    const int n = parents_of(obj, up);
    const bool entity = whole || !obj->pack_index;
    uint64_t need = entity ? obj->entity_len : obj->index_len;
    for (int i = 0; i < n; ++i)
        need += up[i]->index_len;
    if (need > room) {
        console_print("MGI: %s: %llu bytes of data do not fit the message\n", obj->name,
                      static_cast<unsigned long long>(need));
        return -1;
    }
    uint32_t len = 0;
    size_t slot = 0;
    for (int i = 0; i < n; ++i) {
        len += up[i]->pack_index(place + len, nullptr, nullptr, slots + slot);
        slot += up[i]->index_count;
    }
    if (entity)
        len += obj->pack_entity(place + len, mask, mask3, slots + slot);
    else
        len += obj->pack_index(place + len, mask, mask3, slots + slot);
    return static_cast<int32_t>(len);
}

/* Room left in the send buffer from place on. */
size_t room_from(const mgiBuf *buf, const unsigned char *place) {
    const unsigned char *end = buf->sbuf + MGI_MAX_LEN;
    return place < end ? static_cast<size_t>(end - place) : 0;
}

/*
 * The common part of get and exec: prepares the direct road, appends the
 * udcdata segment (get only), packs the record unless mgidata is given and
 * writes the three mask words into the header. Returns the record's place,
 * or null when there is no buffer or the data does not fit.
 */
unsigned char *prepare_direct(const libmgmt_object *obj, mgiInfo *info, bool get, uint64_t *mask, uint32_t *mask3) {
    uint32_t target[MGI_TARGET_WORDS];
    memcpy(target, obj->path, sizeof target);
    mgiBuf *buf = info ? info->mgi_buf : nullptr;
    if (!buf || !buf->sbuf) return nullptr;
    prepare_mgi_exchange_direct_r(buf, target, info->rqt_type, info->rqt_offset, info->rqt_aux, 0, 0);
    if (get && info->udcdata && info->udcdata_len) {
        if (room_from(buf, buf->sendseg) < MGI_SEGHDR_LEN + size_t(info->udcdata_len)) {
            console_print("MGI: %s: udcdata of %u bytes does not fit the message\n", obj->name, info->udcdata_len);
            return nullptr;
        }
        append_rqt_segment_r(buf, MGI_SEG_UDCDATA, info->udcdata, info->udcdata_len);
    }
    unsigned char *place = get_sendseg_buf_r(buf);
    if (!place) return nullptr;
    const size_t room = room_from(buf, place);
    if (!info->mgidata) {
        /* Only the exact value 1 asks a get for the whole entity. */
        const bool whole = !get || mgi_get_whether_full_entity(info) == 1;
        const int32_t len = pack_chain(obj, place, room, info->rqt_item, mask, mask3, whole);
        if (len < 0) return nullptr;
        info->mgidata_len = static_cast<uint16_t>(len);
        if (len) info->mgidata = place;
    } else if (info->mgidata_len > room) {
        console_print("MGI: %s: data of %u bytes does not fit the message\n", obj->name, info->mgidata_len);
        return nullptr;
    }
    unsigned char *hdr = buf->sbuf;
    put_field(hdr, hdr::mask1, info->rqt_mask1 | static_cast<uint32_t>(*mask));
    put_field(hdr, hdr::mask2, info->rqt_mask2 | static_cast<uint32_t>(*mask >> 32));
    put_field(hdr, hdr::mask3, info->rqt_mask3 | *mask3);
    return place;
}

} // namespace

int mgmt_stub_set(const libmgmt_object *obj, mgiInfo *info, mgi_rsp_callback callback) {
    uint32_t target[MGI_TARGET_WORDS];
    memcpy(target, obj->path, sizeof target);
    uint64_t mask = 0;
    uint32_t mask3 = 0;
    mgiBuf *buf = info ? info->mgi_buf : nullptr;
    if (!buf) return -1;
    init_mgi_exchange_r(buf);
    if (!buf->sbuf) return -1;
    unsigned char *place = buf->sbuf + MGI_HDR_LEN;
    if (!info->mgidata) {
        const int32_t len = pack_chain(obj, place, MGI_MAX_PAYLOAD, info->rqt_item, &mask, &mask3, true);
        if (len < 0) return -1;
        info->mgidata_len = static_cast<uint16_t>(len);
        if (len) info->mgidata = place;
    } else if (info->mgidata_len > MGI_MAX_PAYLOAD) {
        console_print("MGI: %s: data of %u bytes does not fit the message\n", obj->name, info->mgidata_len);
        return -1;
    }
    const uint32_t lo = static_cast<uint32_t>(mask), hi = static_cast<uint32_t>(mask >> 32);
    /* mask5 takes the high half and mask4 nothing: the manager reads them so. */
    prepare_mgi_exchange_r(buf, target, info->rqt_firstseg, info->rqt_type, info->mgidata_len, info->rqt_offset,
                           info->rqt_aux, info->rqt_mask1 | lo, info->rqt_mask2 | hi, info->rqt_mask3 | mask3,
                           info->rqt_mask4, info->rqt_mask5 | hi, info->rqt_mask6, info->mgidata);
    return make_mgi_exchange_with_context(info, callback, static_cast<int>(obj->entity_len));
}

int mgmt_stub_get(const libmgmt_object *obj, mgiInfo *info, mgi_direct_callback callback, void *record) {
    uint64_t mask = 0;
    uint32_t mask3 = 0;
    unsigned char *place = prepare_direct(obj, info, true, &mask, &mask3);
    if (!place) return -1;
    unsigned char *hdr = info->mgi_buf->sbuf;
    for (int i = 0; i < 6; ++i)
        put_be32(hdr + MGI_OFF_XMASK1 + 4 * i, info->rqt_xmask[i]);
    for (int i = 0; i < 3; ++i)
        put_be32(hdr + MGI_OFF_XMASK7 + 4 * i, info->rqt_xmask[6 + i]);
    mgi_final_rqt_message(info);

    const uint8_t type = hdr[MGI_OFF_TYPE];
    if (type == MGI_RQT_MGD_GET) return make_mgi_exchange_direct_with_context(info, MGD_APPID, callback, record);
    if (type == MGI_RQT_MATCH_GET && record) {
        auto *match = static_cast<mgi_match_get_record *>(record);
        const uint32_t words[3] = {static_cast<uint32_t>(mask), static_cast<uint32_t>(mask >> 32), mask3};
        match->data = place;
        for (int i = 0; i < 3; ++i) {
            if (match->mask_words) match->mask_words[i] = info->rqt_xmask[i] | words[i];
            if (match->xmask_words) match->xmask_words[i] = info->rqt_xmask[3 + i] | words[i];
        }
    }
    return make_mgi_exchange_direct_with_context(info, obj->owner, callback, record);
}

int mgmt_stub_exec(const libmgmt_object *obj, mgiInfo *info, mgi_direct_callback callback, void *record) {
    uint64_t mask = 0;
    uint32_t mask3 = 0;
    if (!prepare_direct(obj, info, false, &mask, &mask3)) return -1;
    mgi_final_rqt_message(info);
    return make_mgi_exchange_direct_with_context(info, obj->owner, callback, record);
}
