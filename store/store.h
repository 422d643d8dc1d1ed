// The device store: whole files, the container of the device file, its positional JSON, the
// backed-up rewrite and the recovery from a backup, the updates of keypairs and certificates in
// the file, and the data objects. The layout is drawn in docs/device-file.md.
//
// What every function shares: 1 is success and 0 failure unless another result is given;
// out-arguments are written on success only; a new JSON value belongs to the caller and goes back
// with vakro_json_free; a function that fails has released what it made. Nothing here takes the
// module lock: whoever rewrites a device file holds it from the read to the end of the rewrite.
#ifndef VAKRO_STORE_STORE_H
#define VAKRO_STORE_STORE_H

#include "core/lock.h"
#include "core/owners.h"

#include <limits.h>
#include <sys/stat.h>
#include <string_view>

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

// Positions in the root, with the number of items that every device file has.
enum { DEVICE_SERIAL_NUMBER, DEVICE_LABEL, DEVICE_KEYPAIRS, DEVICE_ITEMS, DEVICE_DATAS = 3 };

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

// What a look at a file or an image says. UNKNOWN is a passing failure (memory, a descriptor, a
// read error): the file may well be good, so nothing may take its place.
enum class Found { MISSING_OR_DAMAGED = 0, GOOD = 1, UNKNOWN = -1 };

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

// ReadImage reads and checks a device file as VerifyDeviceFile does, and tells a bad file from a
// failure to look. On GOOD *image (vakro_free) and *size are set.
Found ReadImage(const char* path, unsigned char** image, unsigned int* size);

// VerifyDeviceFile reads a file and checks container and digest; on 1 *image is the whole file
// (vakro_free) of *size bytes.
int VerifyDeviceFile(const char* path, unsigned char** image, unsigned int* size);

// WriteDeviceDataToFile writes a container that holds `text`, with the device's fileTag, to its
// filePath; the bytes are on stable storage when it returns 1. A file that it makes is its owner's
// alone. On 0 the file may be cut short.
int WriteDeviceDataToFile(Device* device, const unsigned char* text, unsigned int length);

// --- Records from and to JSON (reader.cpp) -------------------------------------------------------

// LoadImage builds the device record of a checked image as GetDeviceHandleFromData does, and tells
// an image that is no device from exhausted memory. On GOOD *out is set.
Found LoadImage(const unsigned char* image, Device** out);

// GetDeviceHandleFromData builds a device record from a checked image; the paths are not set.
// `size` is not read. NULL for an image that is no device, or without memory. A keypair item that
// breaks the layout is passed over, so is a certificate; keypairs beyond the 64th are ignored.
Device* GetDeviceHandleFromData(const unsigned char* image, unsigned int size);

VakroJson* Keypair2Json(const Keypair* keypair);  // NULL also for one with an empty field
VakroJson* Cert2Json(const Cert* cert);

// --- Processes (folder_lock.cpp) -----------------------------------------------------------------

// LockFolder takes an advisory lock (flock) on the folder of the file at `path`, so that processes
// never interleave in a read-change-write or a recovery; UnlockFolder gives it back. They nest
// within a thread, where the outermost path counts. Where the folder can't be opened or its file
// system has no such lock the work goes on without it. Taken after the module lock, never before.
void LockFolder(const char* path);
void UnlockFolder(void);

// --- Reading the text and the backed-up rewrite (rewrite.cpp) ------------------------------------

// GetDeviceDataFromFile hands out the JSON text of the device file (vakro_free), recovers the file
// from its backup if it is missing or damaged, and sets the device's fileTag from the file.
int GetDeviceDataFromFile(Device* device, unsigned char** text, unsigned int* length);

// RewriteDeviceFile is the backed-up rewrite: it takes over `tree`, encodes it and replaces the
// device file's content with it. Refuses to give up a valid backup for a device file that is not.
int RewriteDeviceFile(Device* device, VakroJson* tree);

// UpdateDeviceDataToFile writes the whole record to its file and keeps the stored data objects.
// Refuses a device without keypairs, and a file that holds a keypair the record does not know.
int UpdateDeviceDataToFile(Device* device);

// --- Keypairs and certificates in the file (records.cpp) -----------------------------------------
// All find the file through the device and put the keypair's item, built from the record, in place
// of the stored item with the same identity: the first eight items.

// AddhKeypairToFile appends the item, unless one with its identity is stored. Refuses a file in
// which a keypair of the device is enciphered otherwise than in the record: under a PIN that was
// changed elsewhere, which would then no longer open every keypair.
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

// ReadStoredTree is GetDeviceDataFromFile and the decoder (rewrite.cpp). The tree is an array; NULL
// on any failure.
Json ReadStoredTree(Device* device);

// The two halves of a change of data objects, between which the folder lock is held: the file is
// read, checked and decoded once. Of GetAllDatasFromFile and WriteAllDatasToFile each does it anew.
bool ReadDatas(const Json& root, Data*** list, unsigned int* count);
bool WriteDatas(Device* device, Json root, Data** list, unsigned int count);

// The folder lock for a scope.
struct FolderLock {
  explicit FolderLock(const char* path) { LockFolder(path); }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;
  ~FolderLock() { UnlockFolder(); }
};

// --- Shared within the store ---------------------------------------------------------------------

// file.cpp

// ReadFile is ReadWholeFile; it tells a bad file (missing, not a regular one, empty, too large)
// from a failure to read, and hands out the file's owner and mode.
Found ReadFile(const char* path, UtilBytes* data, unsigned int* length, struct stat* status);

// OpenEmptied opens a file for writing and empties it; one that does not exist is made for its
// owner alone. With `like` the file takes that one's owner and mode before a byte is written. NULL
// on failure, also when the file would stay open to more people than `like`.
File OpenEmptied(const char* path, const struct stat* like);

bool WriteBytes(const File& file, const void* bytes, size_t length);
bool FlushToStorage(const File& file);

// WriteWholeFile replaces a file's content, bytes on stable storage. `like` as above, may be NULL.
bool WriteWholeFile(const char* path, const unsigned char* data, unsigned int length,
                    const struct stat* like);

int OpenFolderOf(const char* path);  // a descriptor of the folder that holds the file, or -1

// SyncFolder puts the file's name on stable storage. A folder that can't be read, and a file system
// that does not sync folders, are as good as it gets.
bool SyncFolder(const char* path);

// SyncFile puts bytes and name of a file on stable storage that another process may have left
// unsynced: one that reads well need not be on the disk yet.
bool SyncFile(const char* path);

// json.cpp

bool IsArray(const VakroJson* value);
bool JsonString(const VakroJson* value, std::string_view* text);  // false for any other type

// JsonNumber reads a number, truncated toward zero; beyond the range of `int` it is the nearest
// `int`, and 0 for what is not a number at all. False for any other type.
bool JsonNumber(const VakroJson* value, int* number);

// The Add… append to an array; false for a NULL item too.
bool AddItem(VakroJson* array, const Json& item);
bool AddString(VakroJson* array, std::string_view text);
bool AddNumber(VakroJson* array, int number);
bool AddName(VakroJson* array, const char (&name)[NAME_SIZE]);

UtilText EncodeTree(const VakroJson* tree, unsigned int* length);  // NULL on failure

// container.cpp

// ImageText is the text of an image whose length word has been checked.
std::string_view ImageText(const unsigned char* image);

// reader.cpp

// IsKeypairItem says whether the reader makes a keypair of a stored item, whatever the memory.
bool IsKeypairItem(VakroJson* item);

// IsItemOf says whether a stored item is this keypair's: same label, type and public key. These
// stay when the PIN changes.
bool IsItemOf(VakroJson* item, const Keypair* keypair);
bool HexEquals(const VakroJson* value, const unsigned char* bytes, int length);

#endif
