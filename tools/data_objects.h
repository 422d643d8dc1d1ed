// The data objects of a device, as its file has them just now.
#ifndef VAKRO_TOOLS_DATA_OBJECTS_H
#define VAKRO_TOOLS_DATA_OBJECTS_H

#include "tools/session.h"

struct DataObject {
  int id;
  int length;
};

// DataObjects fails when the list can't be read.
std::vector<DataObject> DataObjects(Device* device);

#endif
