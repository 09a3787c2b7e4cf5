// Device paths of the device operations.
#include "device/device_internal.h"

#include "mgmt/platform/device.h"

namespace mgmt_device {

DevicePath::DevicePath(const char *path) { device_path(path, name, sizeof name); }

} // namespace mgmt_device
