// The list of data objects inside a device file, where the exported interface does not tell.
#ifndef VAKRO_TOOLS_DATA_LIST_H
#define VAKRO_TOOLS_DATA_LIST_H

#include "tools/session.h"

// StoredObjects returns the number of data objects in the device's file; -1 for a file without a
// list, which is one that never held data objects; -2 for a file that can't be read or whose list
// is damaged.
int StoredObjects(Device* device);

// ForgetEmptyList rewrites the device file without its list of data objects. Fails unless the file
// has one and it is empty.
void ForgetEmptyList(Device* device);

#endif
