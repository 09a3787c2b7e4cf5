/*
 * The records of the three objects that the NTP examples share, as the catalogue lays them out:
 * the fields of each object in order, in a plain structure, host byte order. Both programs check
 * at start that the sizes agree with the catalogue (libmgmt_object_find(name)->entity_len), so a
 * record that drifted from the catalogue is caught before the first request.
 *
 *   ntp_ntp      u32*4                  one record: the NTP client's settings
 *   ntp_server   s128 u32 s32*2 u32     a table keyed by its first field, the server's name
 *   ntp_ntptime  u32*6                  an action: set the clock
 *
 * The catalogue gives the layout; what a field means is between the daemon and its front ends.
 */
#ifndef NTP_RECORDS_H
#define NTP_RECORDS_H

#include <stdint.h>

#include "mgmt/records_gen.h"

/* Application 14 owns these objects: the catalogue says so, and mgd relays their sets there. */
#define NTP_APPID 14

struct ntp_settings {           /* ntp_ntp */
    uint32_t enable;            /* field 0: 1 to run the client */
    uint32_t sync_interval;     /* field 1: minutes between synchronisations, 1 to 1440 */
    uint32_t authentication;    /* field 2: 1 to require keys */
    uint32_t max_adjust;        /* field 3: seconds of largest step */
};

struct ntp_server {             /* ntp_server */
    char name[128];             /* field 0, the key */
    uint32_t key_id;            /* field 1: 0 for none, else 1 to 65535 */
    char vrouter[32];           /* field 2 */
    char source_if[32];         /* field 3 */
    uint32_t prefer;            /* field 4: 1 for the preferred server */
};

struct ntp_time {               /* ntp_ntptime */
    uint32_t year, month, day, hour, minute, second;
};

/* The generated record types (struct <object>_entity, fields f1..fN) pin the same layouts: these
 * named copies must keep their sizes. */
_Static_assert(sizeof(struct ntp_settings) == sizeof(struct ntp_ntp_entity), "ntp_ntp");
_Static_assert(sizeof(struct ntp_server) == sizeof(struct ntp_server_entity), "ntp_server");
_Static_assert(sizeof(struct ntp_time) == sizeof(struct ntp_ntptime_entity), "ntp_ntptime");

#endif
