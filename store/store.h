// The device store: whole files, the container of the device file, its positional JSON, the
// backed-up rewrite and the recovery from a backup, the updates of keypairs and certificates in
// the file, and the data objects. The layout is drawn in docs/device-file.md.
//
// What every function shares: 1 is success and 0 failure unless another result is given;
// out-arguments are written on success only; a new JSON value belongs to the caller and goes back
// with vakro_json_free; a function that fails has released what it made. Nothing here takes the
// module lock: whoever works on a record holds it. What changes a device file takes the file's own
// lock (lock.h) for itself, from the read to the end of the rewrite.
#ifndef VAKRO_STORE_STORE_H
#define VAKRO_STORE_STORE_H

#include "core/lock.h"
#include "core/owners.h"

#include <limits.h>

// --- The layout, named once ----------------------------------------------------------------------

// 0         4    8              8+L               8+L+64
// | fileTag | L | JSON, L bytes | digest of JSON  |        words big-endian; the digest skips them
inline constexpr unsigned int TAG_OFFSET = 0;
inline constexpr unsigned int LENGTH_OFFSET = 4;
inline constexpr unsigned int HEADER_SIZE = 8;
inline constexpr unsigned int DIGEST_SIZE = 64;
inline constexpr int FILE_HASH_ID = VAKRO_HASH_SHA512;

// Lengths are `int` in both libraries, so no file beyond this can be hashed or written.
inline constexpr unsigned int MAX_FILE_SIZE = INT_MAX;
inline constexpr unsigned int MAX_TEXT_SIZE = MAX_FILE_SIZE - HEADER_SIZE - DIGEST_SIZE;

// Positions in the root. A device file that has never held data objects ends before theirs.
enum { DEVICE_SERIAL_NUMBER, DEVICE_LABEL, DEVICE_KEYPAIRS, DEVICE_DATAS };

enum {
  KEYPAIR_LABEL,
  KEYPAIR_TYPE,
  KEYPAIR_ALGORITHM,
  KEYPAIR_BITS,
  KEYPAIR_SALT,
  KEYPAIR_IV,
  KEYPAIR_PUBLIC_KEY,
  KEYPAIR_ENCRYPTED_PRIVATE_KEY,
  KEYPAIR_CERTS,
  KEYPAIR_ITEMS
};

enum { DATA_ID, DATA_LENGTH, DATA_RESERVED1, DATA_RESERVED2, DATA_VALUE };

extern "C" {

// --- Whole files (file.cpp) ----------------------------------------------------------------------

// ReadWholeFile reads a regular file of at most MAX_FILE_SIZE bytes into a fresh buffer
// (vakro_free). Refuses an empty file.
int ReadWholeFile(const char* path, unsigned char** data, unsigned int* length);

// CopyFileData makes `destination` hold a copy of the whole source, bytes and name on stable
// storage. The copy has the source's mode, and its owner and group as far as this process may give
// them; it is never open to anyone the source is closed to. Without a readable source the
// destination is not touched; a later failure can leave it cut short.
int CopyFileData(const char* source, const char* destination);

// --- Hash, MAC, cipher on g_hSoftDevice (crypto.cpp) ---------------------------------------------
// Lengths beyond INT_MAX are refused.

// CalculateHash hands out the digest in crypto-library memory.
int CalculateHash(unsigned int algorithm, const unsigned char* data, unsigned int length,
                  unsigned char** digest, unsigned int* digestLength);

// CalculateMac copies the value to the caller's `mac`, which is large enough for the algorithm.
int CalculateMac(unsigned int algorithm, const unsigned char* key, unsigned int keyLength,
                 const unsigned char* data, unsigned int dataLength, unsigned char* mac,
                 unsigned int* macLength);

// CalculateCipher enciphers (`encrypt` 1) or deciphers (0) in one go into the caller's `output` of
// at least `inputLength` + CIPHER_SLACK bytes. On 0 the output is untouched.
inline constexpr unsigned int CIPHER_SLACK = 64;
int CalculateCipher(int encrypt, unsigned int algorithm, const unsigned char* key,
                    unsigned int keyLength, const unsigned char* input, unsigned int inputLength,
                    unsigned char* output, unsigned int* outputLength, const AEADParams* params);

// --- Container (container.cpp) -------------------------------------------------------------------

// VerifyDeviceFile reads a file and checks container and digest; on 1 *image is the whole file
// (vakro_free) of *size bytes.
int VerifyDeviceFile(const char* path, unsigned char** image, unsigned int* size);

// WriteDeviceDataToFile writes a container that holds `text`, with the device's fileTag, to its
// filePath; the bytes are on stable storage when it returns 1. A file that it makes is its owner's
// alone. On 0 the file may be cut short.
int WriteDeviceDataToFile(Device* device, const unsigned char* text, unsigned int length);

// --- Records from and to JSON (reader.cpp, writer.cpp) -------------------------------------------

// GetDeviceHandleFromData builds a device record from a checked image; the paths are not set.
// `size` is not read. NULL for an image that is no device, or without memory. A keypair item that
// breaks the layout is passed over, so is a certificate; keypairs beyond the 64th are ignored.
Device* GetDeviceHandleFromData(const unsigned char* image, unsigned int size);

VakroJson* Keypair2Json(const Keypair* keypair);  // NULL also for one with an empty field
VakroJson* Cert2Json(const Cert* cert);

// --- Reading the text, and writing the whole record (whole_record.cpp) ---------------------------

// GetDeviceDataFromFile hands out the JSON text of the device file (vakro_free), recovers the file
// from its backup if it is missing or damaged, and sets the device's fileTag from the file.
int GetDeviceDataFromFile(Device* device, unsigned char** text, unsigned int* length);

// UpdateDeviceDataToFile writes the whole record to its file, whatever keypairs the file holds, and
// keeps the stored data objects. Refuses a device without keypairs.
int UpdateDeviceDataToFile(Device* device);

// --- Keypairs and certificates in the file (records.cpp) -----------------------------------------
// All find the file through the device and put the keypair's item, built from the record, in place
// of the stored item with the same identity: the first eight items.

// AddhKeypairToFile appends the item, unless one with its identity is stored.
int AddhKeypairToFile(Device* device, Keypair* keypair);

int DeleteKeypairFromFile(Keypair* keypair);           // refuses a file with a data-object item
int AddCertToFile(Keypair* keypair, Cert* cert);       // the record does not hold `cert` yet
int DeleteCertFromFile(Keypair* keypair, Cert* cert);  // the record still holds `cert`
int UpdateKeypairToFile(Keypair* keypair);  // writes without a backup; the module never calls it

// --- JSON helpers (json.cpp) ---------------------------------------------------------------------

VakroJson* VakroJsonDeleteArrayItem(VakroJson* array, int index);
VakroJson* VakroJsonUpdateArrayItem(VakroJson* array, int index, VakroJson* item);
VakroJson* UpdateJsonKeypairsToDevice(VakroJson* tree, VakroJson* keypairs);
VakroJson* UpdateJsonCertsToKeypair(VakroJson* keypairItem, VakroJson* certs);
int KeypairJsonEqual(VakroJson* a, VakroJson* b);  // all items but the last
int CertJsonEqual(VakroJson* a, VakroJson* b);

// NULL when no stored item equals `keypairItem`.
VakroJson* UpdateJsonKeypairToKeypairs(VakroJson* keypairs, VakroJson* keypairItem);

int AddJsonCertToCerts(VakroJson* certs, VakroJson* cert);  // in place; 1 also if already there
VakroJson* DeleteJsonCertToCerts(VakroJson* certs, VakroJson* cert);  // a copy if none is equal
VakroJson* DeleteJsonCertToKeypair(VakroJson* keypairItem, VakroJson* cert);

// --- Data objects (datas.cpp) --------------------------------------------------------------------

// GetAllDatasFromFile hands out the device's data objects, to be released with FreeDatas; the array
// has room for 8 more. Without data objects *count is 0 and *list not written.
int GetAllDatasFromFile(Device* device, Data*** list, unsigned int* count);

// WriteAllDatasToFile makes `list` the device's data objects, in this order.
int WriteAllDatasToFile(Device* device, Data** list, unsigned int count);

Data* Json2Data(VakroJson* item);
VakroJson* Data2Json(const Data* data);
VakroJson* Datas2Json(Data** list, int count);
VakroJson* UpdateData2DeviceJson(Device* device, VakroJson* datas);

}  // extern "C"

#endif
