// Looking at a device file to the last item, for people: where the readers answer "damaged" or pass
// something over, this says what and where; and what can be mended without guessing.
#ifndef VAKRO_STORE_INSPECT_H
#define VAKRO_STORE_INSPECT_H

#include <string_view>

// What can be wrong. What the readers make of it stands beside.
enum class FileFault {
  // no device
  SHORT,        // `found` bytes, at least `wanted`
  LENGTH_WORD,  // says `found`, the file's size asks for `wanted`
  DIGEST,
  TEXT,        // is no JSON within the decoder's bounds
  ROOT,        // is no array of 3 items or more
  ROOT_FIELD,  // `field` of the root has the wrong type, or is too long
  // a keypair passed over
  KEYPAIR,         // is no array of 9 items
  KEYPAIR_FIELD,   // `field` has the wrong type or is too long
  KEYPAIR_HEX,     // `field` is not hex
  TOO_MANY_CERTS,  // `found` of at most `wanted`
  TOO_MANY_KEYPAIRS,
  // a certificate passed over
  CERT,  // number `at` of the keypair is no string, or no base64
  // loaded all the same
  SAME_KEYPAIR,  // type and label of an earlier one
  // every call on data objects fails
  DATAS,  // is no array
  DATA,   // number `at` breaks the layout
  SAME_DATA,
};

struct StoredFault {
  FileFault fault;
  int keypair = -1;             // place in the list, from 0
  std::string_view label = {};  // of the keypair, as far as it can be read; good during the call
  const char* field = nullptr;  // the name of an item: "label", "public key"
  int at = -1;
  unsigned int found = 0;
  unsigned int wanted = 0;
};

// InspectImage calls `tell` for each fault of a device file's content.
//   image, size  the whole file
//   context      handed to `tell`
// Returns 1 when the readers load a device of it, 0 when they don't, -1 when memory is out.
int InspectImage(const unsigned char* image, unsigned int size,
                 void (*tell)(void* context, const StoredFault& fault), void* context);

// FindText finds the text of a file whose length word and size contradict each other: the digest
// proves which of the two is right. Returns 1 with its length; 0 when neither is, or both are; -1
// when memory is out.
int FindText(const unsigned char* image, unsigned int size, unsigned int* length);

// SetTextLength gives a device file the length word of such a text and cuts off what stands behind
// its digest. Caller holds the file's lock. False with errno set, and the file may have changed.
bool SetTextLength(const char* path, unsigned int length);

#endif
