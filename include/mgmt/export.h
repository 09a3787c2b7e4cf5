#ifndef MGMT_EXPORT_H
#define MGMT_EXPORT_H

/* Marks a name that leaves libmgmt.so; everything else stays hidden. */
#if defined(MGMT_BUILDING)
#define MGMT_API __attribute__((visibility("default")))
#else
#define MGMT_API
#endif

#ifdef __cplusplus
#define MGMT_BEGIN_DECLS extern "C" {
#define MGMT_END_DECLS }
#else
#define MGMT_BEGIN_DECLS
#define MGMT_END_DECLS
#endif

#endif
