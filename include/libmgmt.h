/* libmgmt: the management library of the appliance. Includes every family header. */
#ifndef LIBMGMT_H
#define LIBMGMT_H

#include "mgmt/export.h"
#include "mgmt/version.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_app.h"
#include "mgmt/cond.h"
#include "mgmt/mgi_services.h"
#include "mgmt/buf_list.h"
#include "mgmt/sorter.h"
#include "mgmt/value.h"
#include "mgmt/term.h"
#include "mgmt/utmp_queue.h"
#include "mgmt/objects.h"
#include "mgmt/device.h"

#endif
