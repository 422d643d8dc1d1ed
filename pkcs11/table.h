// The table: what clients have set of objects, and objects that the device file has no other place
// for. It stands in an extension of an X.509 certificate in the anchor's list, which the anchor has
// signed. docs/pkcs11.md draws it.
#ifndef VAKRO_PKCS11_TABLE_H
#define VAKRO_PKCS11_TABLE_H

#include "pkcs11/object.h"

// FindTable returns the index of the table in the certificate list of an anchor, or -1, and where
// its bytes stand in the certificate.
int FindTable(const Keypair* anchor, Span* table);

// ReadTable applies a table to the objects of the view and adds those that it holds. What a table
// can't mean is passed over. False when memory is out.
bool ReadTable(Span table, View& view);

// WriteTable makes the table of a view. False when memory is out.
bool WriteTable(const View& view, Buffer& table);

// HasSoPin says whether the PIN of a device is the security officer's; `anchor` may be NULL.
bool HasSoPin(const Keypair* anchor);

// MakeTableCertificate makes the certificate that carries a table, signed by the anchor, whose
// private key is there. Returns a CKR_.
CK_RV MakeTableCertificate(Keypair* anchor, Span table, Buffer& certificate);

#endif
