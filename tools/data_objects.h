// The data objects of a device, as its file has them just now.
#ifndef VAKRO_TOOLS_DATA_OBJECTS_H
#define VAKRO_TOOLS_DATA_OBJECTS_H

#include "tools/session.h"

struct DataObject {
  int id;
  int length;
  std::string fingerprint;  // of its bytes
};

// DataObjects lists them by number; fails when the list can't be read.
std::vector<DataObject> DataObjects(Device* device);

std::string NameOfObject(int id);  // "data object 7"

// FindObject fails when there is no such object, RefuseTaken when there is one.
DataObject FindObject(Device* device, int id);
void RefuseTaken(Device* device, int id);

// RequireRoom fails when the device file has no room for an object of that size.
void RequireRoom(const Device* device, size_t size);

// PutObject makes an object of the bytes, in one rewrite, under the number, or the first that is
// free for 0; returns the number.
int PutObject(const Session& session, int id, const Bytes& bytes);

// DeleteObject fails when it finds another object, or other bytes, under the number.
void DeleteObject(const Session& session, const DataObject& object);

#endif
