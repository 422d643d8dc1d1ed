// What the files of store/ share among themselves.
#ifndef VAKRO_STORE_INSIDE_H
#define VAKRO_STORE_INSIDE_H

#include "store/change.h"
#include "store/store.h"

// --- file.cpp ------------------------------------------------------------------------------------

// OpenRegularFile opens a regular file for reading and hands out its owner, mode and size.
ReadResult OpenRegularFile(const char* path, File* file, struct stat* status);

// ReadBytes reads the next `length` bytes. BAD when the file ends before.
ReadResult ReadBytes(const File& file, void* bytes, size_t length);

// ReadFile is ReadWholeFile; it tells a bad file (missing, not a regular one, empty, too large)
// from a failure to read.
ReadResult ReadFile(const char* path, FileImage* image);

// OpenEmptied opens a file for writing and empties it; one that does not exist is made for its
// owner alone. With `like` the file has that one's owner and mode before a byte goes. NULL on
// failure, also when the file would stay open to more people than `like`; it has its content then.
File OpenEmptied(const char* path, const struct stat* like);

// OpenFresh is OpenEmptied for a file that is always made new, in the place of whatever has the
// name. NULL for a folder.
File OpenFresh(const char* path, const struct stat* like);

// TakeOwnerAndMode gives an open file owner, group and permissions of `like`. A group that could
// not be given gets what both the group and everybody else had. False when the file stays open to
// more people than `like`.
bool TakeOwnerAndMode(int fd, const struct stat& like);

bool WriteBytes(const File& file, const void* bytes, size_t length);
bool FlushToStorage(const File& file);

// WriteOut writes all that a file is to hold and puts it on stable storage. False for no file.
bool WriteOut(const File& file, const unsigned char* data, unsigned int length);

int OpenFolderOf(const char* path);  // a descriptor of the folder that holds the file, or -1

// --- json.cpp ------------------------------------------------------------------------------------

// DecodeText decodes a text. BAD when it is not JSON, UNKNOWN for want of memory.
ReadResult DecodeText(std::string_view text, Json* tree);

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

// IsDeviceRoot says whether a text's root has what every device has. HasDatas: and something in the
// place of the data objects.
bool IsDeviceRoot(VakroJson* root);
bool HasDatas(VakroJson* root);

// --- container.cpp -------------------------------------------------------------------------------

// CheckImage checks container and digest of a file that has been read.
ReadResult CheckImage(const FileImage& image);

// MakeImage puts a text into its container; NULL on failure.
UtilBytes MakeImage(unsigned int tag, std::string_view text, unsigned int* size);

// --- reader.cpp ----------------------------------------------------------------------------------

// False for an item of another type, and for a name that is too long.
bool ReadName(const VakroJson* item, char (&name)[NAME_SIZE]);
bool ReadNumber(const VakroJson* item, unsigned int* field);

// LoadTree is LoadImage for a text that has been decoded.
ReadResult LoadTree(VakroJson* root, unsigned int tag, Device** out);

Keypair* Json2Keypair(VakroJson* item);  // NULL for an item that breaks the layout

// ReadCert makes a certificate of a stored string. BAD for anything else, UNKNOWN for want of
// memory.
ReadResult ReadCert(const VakroJson* item, Cert** out);

// IsKeypairItem says whether the reader makes a keypair of a stored item, whatever the memory.
bool IsKeypairItem(VakroJson* item);

// MayBeKeypair is true also of keypairs that the reader passes over, such as those with too many
// certificates.
bool MayBeKeypair(VakroJson* item);

// --- identity.cpp --------------------------------------------------------------------------------

bool IsItemNamed(VakroJson* item, unsigned int type, const char* label);

// IsItemOf says whether a stored item is this keypair's: same label, type and public key. These
// stay when the PIN changes.
bool IsItemOf(VakroJson* item, const Keypair* keypair);

// HasBlobOf says whether it holds the private key as it is enciphered in the record.
bool HasBlobOf(VakroJson* item, const Keypair* keypair);

// HasTwin says whether the record holds another keypair of the same label, type and public key: the
// file held it twice when it was loaded.
bool HasTwin(const Keypair* keypair);

// --- rewrite.cpp ---------------------------------------------------------------------------------

// PutBack writes the device file as it was when the change began.
void PutBack(const FileChange& change, const Device* device);

// --- current.cpp ---------------------------------------------------------------------------------

// LockCurrent locks a device file, waiting for another holder, and reads it as ReadCurrent does.
ReadResult LockCurrent(const char* path, const char* backupPath, FileLock* lock, FileImage* image);

// --- lock.cpp ------------------------------------------------------------------------------------

void Pause(long milliseconds);

#endif
