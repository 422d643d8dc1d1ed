// Views: all objects of a device.
#ifndef VAKRO_PKCS11_VIEW_H
#define VAKRO_PKCS11_VIEW_H

#include "pkcs11/object.h"

// LoadTokenView makes the objects of a device from its record, its data objects and the table.
// Handles are those that the objects of the same name have in `former`, which may be NULL. Returns
// 1, or 0 when memory is out. The file is read for the data objects; no lock is taken but the
// module's.
int LoadTokenView(Device* device, const View* former, View& view);

// SeesLess says whether what an earlier view has shown could not be read this time. A change that
// began with such a view would leave it out of the table, or out of its place there.
bool SeesLess(const View& now, const View& before);

// AddKeypairObjects adds the private and the public key of one keypair. It adds nothing where the
// keypair can't be offered, and says why in the log. False when memory is out.
bool AddKeypairObjects(Device* device, int index, View& view);

// StoreTable puts the table of the view into the record's anchor, which it makes if there is none.
CK_RV StoreTable(Device* device, View& view);

#endif
